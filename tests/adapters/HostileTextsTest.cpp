#include "tests/rig/HostileTexts.h"

#include <algorithm>

#include "tests/adapters/NotifyingDesk.h"
#include "tests/rig/TerminalRig.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

// In bytes. The client cuts a row at 12,800 bytes (text/Text.cpp) and a notification's body at 16,000 bytes.
// These limits are larger, because the tests also count the rest of the D-Bus message.
constexpr std::size_t longestRow = 13'000;
constexpr std::size_t longestBody = 18'000;

/// Expects that `shown`, which the client made from `each.text`, contains no control characters and has at
/// most `limit` bytes. `lines`: whether `shown` may contain line feeds.
void expectHarmless(const HostileText& each, std::string_view shown, std::size_t limit, bool lines = false) {
  EXPECT_EQ(faultOf(shown, lines), "") << each.name;
  EXPECT_NE(shown.find("before"), std::string_view::npos) << each.name;
  EXPECT_LE(shown.size(), limit) << each.name;
  // Short texts must not be cut: "behind" is their last word.
  if (each.text.size() < 500) {
    EXPECT_NE(shown.find("behind"), std::string_view::npos) << each.name;
  }
}

using HostileTextOnTheTray = TrayDesk;

TEST_F(HostileTextOnTheTray, IsHarmless) {
  for (const auto& each : hostileTexts()) {
    item->setMenu({{{.id = 1, .title = each.text, .enabled = false}, {.id = 2, .title = "next"}}});
    item->setButton({.toolTip = each.text, .accessibilityLabel = each.text});
    expectHarmless(each, host->menu("GetProperty", "is", 1, "label"), longestRow);
    EXPECT_EQ(host->menu("GetProperty", "is", 2, "label"), "s 'next'");
    const std::string toolTip = host->property("ToolTip");
    expectHarmless(each, toolTip, longestRow);
    EXPECT_EQ(toolTip.find('<'), std::string::npos) << "some trays read markup";
    expectHarmless(each, host->property("IconAccessibleDesc"), longestRow);
    for (const auto& told : host->news()) EXPECT_EQ(faultOf(told), "") << each.name;
  }
}

using HostileTextInANotification = NotifyingDesk;

TEST_F(HostileTextInANotification, IsHarmless) {
  for (const auto& behaviour : {plain, markup}) {
    daemon = serve(behaviour);
    connect();
    for (const auto& each : hostileTexts()) {
      const auto before = daemon->calls().size();
      add(each.text, "body");
      add("title", each.text);
      ASSERT_TRUE(comesTrueElsewhere(loop, [&] {
        const Calls calls = daemon->calls();
        return std::count_if(calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end(),
                             [](const std::string& call) { return call != question; }) == 2;
      })) << each.name;
      Calls calls = daemon->calls();
      expectHarmless(each, calls[calls.size() - 2], longestRow);
      expectHarmless(each, calls.back(), longestBody, true);
      EXPECT_LE(std::count(calls.back().begin(), calls.back().end(), '\n'), 40) << each.name;
    }
    daemon.reset();
  }
}

struct HostileTextInATerminal : ::testing::TestWithParam<TerminalRig::Line> {
  EventLoop loop;
  TerminalRig rig{loop, GetParam()};

  /// Waits until the output ends with `end`. On a terminal, the prompt must follow `end`.
  bool comesTo(const std::string& end) {
    const std::string last = end + (GetParam() == TerminalRig::Line::terminal ? "列號或按鍵> " : "");
    return comesTrue(loop, [&] { return rig.screen.text.ends_with(last); });
  }
};

TEST_P(HostileTextInATerminal, IsHarmlessInTheMenu) {
  for (const auto& each : hostileTexts()) {
    rig.screen.text.clear();
    rig.face->setButton({.toolTip = each.text});
    rig.face->setMenu(
        {{{.id = 1, .title = each.text, .enabled = false}, {.id = 2, .title = "end of " + each.name}}});
    rig.face->printMenu();
    ASSERT_TRUE(comesTo("end of " + each.name + "\n")) << each.name;
    EXPECT_EQ(faultOf(rig.screen.text, true), "") << each.name;
    EXPECT_EQ(rig.screen.count("\n"), 5U) << each.name;
    EXPECT_EQ(rig.screen.count("before"), 2U) << each.name;
    EXPECT_LE(rig.screen.text.size(), 2 * longestRow) << each.name;
  }
}

TEST_P(HostileTextInATerminal, IsHarmlessInAnAlert) {
  // The terminal prints each text in full, several times. Texts of only about 16 KiB keep this test fast.
  // TerminalPrompt.FollowsAReportOf2Megabytes tests a text of 2 MB.
  for (const auto& each : hostileTexts(1 << 14)) {
    rig.screen.text.clear();
    View stack{.kind = ViewKind::stack,
               .children = {{.kind = ViewKind::label, .text = "label " + each.text},
                            {.kind = ViewKind::textField,
                             .identifier = "field",
                             .text = each.text,
                             .accessibilityLabel = each.text}}};
    bool answered = false;
    rig.present({.messageText = each.text,
                 .informativeText = each.text,
                 .buttons = {each.text},
                 .accessoryView = stack},
                [&](const AlertAnswer&) { answered = true; });
    // The output contains "before" five times: in the message, the informative text, the label, and the
    // field's name and value. Counting is slow, so count only when the output ends with a prompt.
    const auto ends = [&](std::string_view end) { return rig.screen.text.ends_with(end); };
    ASSERT_TRUE(comesTrue(loop, [&] {
      return (ends("> ") || ends("> \n")) && rig.screen.count("before") >= 5;
    })) << each.name;
    EXPECT_EQ(rig.screen.count("before"), 5U) << each.name;
    EXPECT_EQ(faultOf(rig.screen.text, true), "") << each.name;
    rig.screen.text.clear();
    rig.type("\n\n");
    ASSERT_TRUE(comesTrue(loop, [&] { return answered; })) << each.name;
    rig.settle();
    ASSERT_TRUE(comesTo("")) << each.name;
    EXPECT_EQ(rig.screen.count("[1] before"), 1U) << each.name;
    EXPECT_EQ(faultOf(rig.screen.text, true), "") << each.name;
  }
}

INSTANTIATE_TEST_SUITE_P(On, HostileTextInATerminal,
                         ::testing::Values(TerminalRig::Line::pipes, TerminalRig::Line::terminal),
                         [](const auto& each) {
                           return each.param == TerminalRig::Line::pipes ? "Pipes" : "ATerminal";
                         });

}  // namespace
}  // namespace kestrune::testing
