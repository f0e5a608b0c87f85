#include <sstream>

#include "tests/rig/RecordingTarget.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

using namespace std::string_literals;
using Words = std::vector<std::string>;

struct TerminalMenu : ::testing::Test {
  void SetUp() override {
    rig.face->setButton({.toolTip = "Kestrune"});
    rig.face->setMenu(menu);
    rig.settle();
  }

  /// Returns the words of the menu row with the given number; empty if there is no such row.
  Words row(int number) const {
    std::istringstream lines(rig.screen.text);
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      Words found;
      for (std::string word; words >> word;) found.push_back(word);
      if (!found.empty() && found.front() == std::to_string(number)) return found;
    }
    return {};
  }

  EventLoop loop;
  TerminalRig rig{loop, TerminalRig::Line::pipes};
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  Menu menu{{
      {.id = 1, .title = "status", .enabled = false, .target = target},
      {.id = 2, .isSeparator = true, .target = target},
      {.id = 3, .title = "refresh", .action = "refresh", .keyEquivalent = "r", .target = target},
      {.id = 4, .title = "restart", .action = "restart", .keyEquivalent = "R", .target = target},
      {.id = 5, .title = "off", .action = "switch", .keyEquivalent = "a", .checked = false, .target = target},
      {.id = 6, .title = "on", .action = "other", .keyEquivalent = ",", .checked = true, .target = target},
      {.id = 7, .title = "no", .action = "no", .keyEquivalent = "n", .enabled = false, .target = target},
  }};
};

TEST_F(TerminalMenu, ShowsTheTitleAndEveryRowWithItsNumberKeyAndMark) {
  EXPECT_EQ(rig.screen.count("Kestrune"), 1u);
  EXPECT_LT(rig.screen.text.find("Kestrune"), rig.screen.text.find("status"));
  EXPECT_EQ(row(1), (Words{"1", "status"}));
  EXPECT_EQ(row(2).size(), 2u);
  EXPECT_EQ(row(3), (Words{"3", "r", "refresh"}));
  EXPECT_EQ(row(4), (Words{"4", "R", "restart"}));
  EXPECT_EQ(row(5), (Words{"5", "a", "✗", "off"}));
  EXPECT_EQ(row(6), (Words{"6", ",", "✓", "on"}));
  EXPECT_EQ(row(7), (Words{"7", "n", "no"}));
  EXPECT_EQ(row(8), Words{});
}

TEST_F(TerminalMenu, IsNotPrintedForChangesThatTextDoesNotShow) {
  rig.printed();
  rig.face->setMenu(menu);
  rig.face->setButton({.toolTip = "Kestrune"});
  rig.face->setButton(
      {.image = makeTestImage(2, 1, 2, 3), .toolTip = "Kestrune", .accessibilityLabel = "described"});
  EXPECT_EQ(rig.printed(), "");
}

TEST_F(TerminalMenu, IsPrintedOnceForAButtonAndAMenu) {
  rig.printed();
  menu.items[0].title = "changed";
  rig.face->setMenu(menu);
  rig.face->setButton({.toolTip = "Kestrune · ok"});
  menu.items[0].title = "changed again";
  rig.face->setMenu(menu);
  rig.settle();
  EXPECT_EQ(rig.screen.count("Kestrune · ok"), 1u);
  EXPECT_EQ(row(1), (Words{"1", "changed", "again"}));
  EXPECT_EQ(rig.screen.count("restart"), 1u);
  rig.printed();
  rig.face->setButton({.toolTip = "Kestrune · other"});
  EXPECT_NE(rig.printed().find("restart"), std::string::npos);
}

TEST_F(TerminalMenu, IsPrintedOnceBelowANotification) {
  rig.printed();
  const Notification news{"id", "the news", "of\nthe day", true};
  rig.face->add(news);
  const std::string shown = rig.printed();
  EXPECT_TRUE(shown.starts_with("\nthe news：of the day\n\nKestrune\n")) << shown;
  rig.face->printMenu();
  EXPECT_EQ(rig.printed().find("news"), std::string::npos);
  EXPECT_EQ(rig.desktop.posted, std::vector{news});
  rig.face->withdraw("id");
  EXPECT_EQ(rig.desktop.withdrawn, Words{"id"});
}

TEST_F(TerminalMenu, RunsRowsByNumberOrKey) {
  rig.after("3\nR\n5\n");
  EXPECT_EQ(target->performed, (CallLog{"refresh", "restart", "switch"}));
  rig.after("  6 \t\na\nr\nA\n,\n");
  EXPECT_EQ(target->performed,
            (CallLog{"refresh", "restart", "switch", "other", "switch", "refresh", "other"}));
}

TEST_F(TerminalMenu, RefusesUnknownRows) {
  for (const std::string typed :
       {"0", "8", "-1", "+3", "3x", "3 3", "z", "rr", "99999999999999999999", "３"}) {
    EXPECT_EQ(rig.after(typed + "\n"), "沒有這一列：" + typed + "\n");
  }
  EXPECT_EQ(target->performed, CallLog{});
}

TEST_F(TerminalMenu, RefusesDisabledRows) {
  EXPECT_EQ(rig.after("1\n"), "這一列只供查看：status\n");
  EXPECT_EQ(rig.after("7\n"), "這一列只供查看：no\n");
  EXPECT_EQ(rig.after("n\n"), "這一列只供查看：no\n");
  EXPECT_EQ(rig.after("2\n").rfind("這一列只供查看：", 0), 0u);
  EXPECT_EQ(target->performed, CallLog{});
}

TEST_F(TerminalMenu, KeepsAnUnfinishedLineFromAPipe) {
  rig.after("no such");
  menu.items[0].title = "changed";
  rig.face->setMenu(menu);
  rig.face->printMenu();
  rig.settle();
  EXPECT_EQ(rig.after(" row\n"), "沒有這一列：no such row\n");
}

TEST_F(TerminalMenu, RefusesALineThatIsTooLongAndKeepsTheNextFromAPipe) {
  for (int piece = 0; piece < 70; ++piece) {
    rig.type(std::string(1000, 'x'));
    rig.settle();
  }
  EXPECT_EQ(rig.after("\n3\n"), "這一行太長，沒有採用：最多 65536 個位元組。請重新輸入。\n");
  EXPECT_EQ(target->performed, CallLog{"refresh"});
}

TEST_F(TerminalMenu, StaysAliveWhenItsReaderIsGone) {
  rig.closeScreen();
  menu.items[0].title = "changed";
  rig.face->setMenu(menu);
  rig.type("unknown\n3\n");
  EXPECT_TRUE(comesTrue(loop, [this] { return target->performed == CallLog{"refresh"}; }));
}

}  // namespace
}  // namespace kestrune::testing
