#include <gtest/gtest.h>

#include "tests/support/TerminalRig.h"

namespace kestrune::testing {
namespace {

TEST(TerminalPrompt, StandsAfterWhateverIsPrintedOnATerminal) {
  EventLoop loop;
  TerminalRig rig(loop, TerminalRig::Line::terminal);
  const auto item = rig.face->statusItem(squareStatusItemLength);
  item->setMenu({{{.id = 1, .title = "row"}}});
  EXPECT_TRUE(rig.screen.shows("row\n列號或按鍵> "));
  rig.type("unknown\n");
  EXPECT_TRUE(rig.screen.shows("沒有這一列：unknown\n列號或按鍵> "));
  rig.type("1\n");
  EXPECT_TRUE(rig.screen.shows("這一列只供查看：row\n列號或按鍵> "));
  rig.face->present({[] { return Alert{.messageText = "?", .informativeText = "", .buttons = {"OK"}}; },
                     [](const AlertAnswer&) {}});
  EXPECT_TRUE(rig.screen.shows("[1] OK  \n按鈕編號> "));
  rig.type("2\n");
  EXPECT_TRUE(rig.screen.shows("請輸入按鈕編號。\n按鈕編號> "));
}

TEST(TerminalPrompt, ComesBackOnceAfterARowWhateverThatDoes) {
  struct Commands final : ActionTarget {
    void performAction(std::string_view action) override {
      if (action == "change") (*item)->setMenu({{{.id = 1, .title = "changed"}}});
    }
    std::unique_ptr<StatusItem>* item = nullptr;
  };
  EventLoop loop;
  TerminalRig rig(loop, TerminalRig::Line::terminal);
  auto item = rig.face->statusItem(squareStatusItemLength);
  const auto commands = std::make_shared<Commands>();
  commands->item = &item;
  item->setMenu({{{.id = 1, .title = "quiet", .action = "none", .target = commands},
                  {.id = 2, .title = "change it", .action = "change", .target = commands}}});
  EXPECT_TRUE(rig.screen.shows("change it\n列號或按鍵> "));
  rig.screen.text.clear();
  rig.type("1\n");
  EXPECT_TRUE(rig.screen.shows("1\n列號或按鍵> "));
  rig.screen.text.clear();
  rig.type("2\n");
  EXPECT_TRUE(rig.screen.shows("changed\n列號或按鍵> "));
  rig.settle();
  EXPECT_EQ(rig.screen.count("列號或按鍵> "), 1U);
}

TEST(TerminalPrompt, StandsAlsoAfterAReportThatIsFarTooLong) {
  EventLoop loop;
  TerminalRig rig(loop, TerminalRig::Line::terminal);
  const auto item = rig.face->statusItem(squareStatusItemLength);
  const std::string report(2'000'000, 'x');
  rig.face->present({[&] { return Alert{.messageText = "?", .informativeText = report, .buttons = {"OK"}}; },
                     [](const AlertAnswer&) {}});
  EXPECT_TRUE(comesTrue(loop, [&] { return rig.screen.text.ends_with("[1] OK  \n按鈕編號> "); }));
}

TEST(TerminalPrompt, IsLeftOutWhereNobodyTypes) {
  EventLoop loop;
  TerminalRig rig(loop, TerminalRig::Line::pipes);
  const auto item = rig.face->statusItem(squareStatusItemLength);
  item->setMenu({{{.id = 1, .title = "row"}}});
  rig.type("unknown\n");
  rig.settle();
  EXPECT_EQ(rig.screen.text.find("> "), std::string::npos);
  EXPECT_NE(rig.screen.text.find("unknown"), std::string::npos);
}

}  // namespace
}  // namespace kestrune::testing
