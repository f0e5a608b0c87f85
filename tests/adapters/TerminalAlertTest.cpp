#include <gtest/gtest.h>

#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

using namespace std::string_literals;
using Answers = std::vector<std::string>;

struct TerminalAlert : ::testing::Test {
  void SetUp() override {
    item = rig.face->statusItem(squareStatusItemLength);
    item->setMenu({{{.id = 1, .title = "the-row"}}});
    rig.settle();
    rig.screen.text.clear();
  }

  void present(const Alert& alert, std::function<void()> then = {}) {
    rig.face->present({[alert] { return alert; },
                       [this, alert, then = std::move(then)](const AlertAnswer& answer) {
                         answers.push_back(alert.messageText + " " +
                                           (answer.button ? std::to_string(*answer.button) : "cancelled"));
                         if (then) then();
                       }});
  }
  void present(const std::string& message) {
    present({.messageText = message, .informativeText = "", .buttons = {"OK", "Cancel"}});
  }

  std::string onScreen() {
    rig.settle();
    return std::exchange(rig.screen.text, {});
  }
  std::string after(const std::string& typed) {
    rig.settle();
    rig.screen.text.clear();
    rig.type(typed);
    return onScreen();
  }
  void changeMenu(const std::string& title) { item->setMenu({{{.id = 1, .title = title}}}); }

  EventLoop loop;
  TerminalRig rig{loop, TerminalRig::Line::pipes};
  std::unique_ptr<StatusItem> item;
  Answers answers;
};

TEST_F(TerminalAlert, ShowsItsTextsAndItsButtonsWithTheirNumbers) {
  present({.messageText = "Stop?", .informativeText = "first\n\nthird", .buttons = {"Yes", "No", "Later"}});
  const std::string shown = onScreen();
  EXPECT_NE(shown.find("⚠ Stop?\n"), std::string::npos) << shown;
  EXPECT_NE(shown.find("\nfirst\n\nthird\n"), std::string::npos) << shown;
  EXPECT_NE(shown.find("[1] Yes  [2] No  [3] Later"), std::string::npos) << shown;
  EXPECT_EQ(answers, Answers{});
}

TEST_F(TerminalAlert, TellsInformationFromAWarning) {
  present(
      {.style = AlertStyle::informational, .messageText = "Done", .informativeText = "", .buttons = {"OK"}});
  const std::string shown = onScreen();
  EXPECT_NE(shown.find("Done\n"), std::string::npos);
  EXPECT_EQ(shown.find("⚠"), std::string::npos);
}

TEST_F(TerminalAlert, TakesReturnForTheFirstButton) {
  present("a");
  after("\n");
  EXPECT_EQ(answers, Answers{"a 0"});
  present("b");
  after(" \t\r\n");
  EXPECT_EQ(answers, (Answers{"a 0", "b 0"}));
}

TEST_F(TerminalAlert, TakesTheNumberOfAButton) {
  present("a");
  after("2\n");
  present("b");
  after(" 1 \n");
  EXPECT_EQ(answers, (Answers{"a 1", "b 0"}));
}

TEST_F(TerminalAlert, AsksAgainForAnythingElse) {
  present("a");
  for (const std::string typed : {"0", "3", "-1", "OK", "1x", "q", "99999999999999999999", "\x1b[31m"}) {
    EXPECT_EQ(after(typed + "\n"), "請輸入按鈕編號。\n") << typed;
  }
  EXPECT_EQ(answers, Answers{});
  after("2\n");
  EXPECT_EQ(answers, Answers{"a 1"});
}

TEST_F(TerminalAlert, IsAnsweredOnce) {
  present("a");
  after("1\n1\n\n");
  EXPECT_EQ(answers, Answers{"a 0"});
}

TEST_F(TerminalAlert, KeepsTheMenuBackUntilItIsAnswered) {
  present("a");
  onScreen();
  changeMenu("meanwhile");
  changeMenu("at last");
  EXPECT_EQ(onScreen(), "");
  const std::string shown = after("\n");
  EXPECT_NE(shown.find("at last"), std::string::npos);
  EXPECT_EQ(shown.find("meanwhile"), std::string::npos);
}

TEST_F(TerminalAlert, KeepsNotificationsBackUntilItIsAnswered) {
  present("a");
  onScreen();
  for (const std::string text : {"same", "other", "same"}) rig.face->add({"id", "news", text});
  EXPECT_EQ(onScreen(), "");
  const std::string shown = after("\n");
  EXPECT_TRUE(shown.starts_with("\nnews：same\n\nnews：other\n\n")) << shown;
  EXPECT_EQ(rig.desktop.posted.size(), 3U);
}

TEST_F(TerminalAlert, KeepsTheMenuBackWhileOthersWait) {
  present("a");
  present("b");
  onScreen();
  changeMenu("at last");
  EXPECT_EQ(after("\n").find("at last"), std::string::npos);
  EXPECT_NE(after("\n").find("at last"), std::string::npos);
}

TEST_F(TerminalAlert, IsCancelledByTheEndOfTheInput) {
  present("open");
  present("waiting");
  onScreen();
  rig.endInput();
  ASSERT_TRUE(comesTrue(loop, [this] { return answers.size() == 2; }));
  EXPECT_EQ(answers, (Answers{"open cancelled", "waiting cancelled"}));
}

TEST_F(TerminalAlert, IsCancelledWhenTheInputHasEnded) {
  rig.endInput();
  rig.settle();
  present("late");
  EXPECT_EQ(answers, Answers{}) << "an answer must not come before the question is put";
  rig.settle();
  EXPECT_EQ(answers, Answers{"late cancelled"});
}

TEST_F(TerminalAlert, LeavesTheMenuAliveWhenTheInputHasEnded) {
  present("open");
  rig.endInput();
  rig.settle();
  EXPECT_EQ(answers, Answers{"open cancelled"});
  onScreen();
  changeMenu("still supervised");
  EXPECT_NE(onScreen().find("still supervised"), std::string::npos);
}

TEST_F(TerminalAlert, IsAnsweredByTheLastLineWithoutAnEnd) {
  present("a");
  present("b");
  onScreen();
  rig.type("2");
  rig.endInput();
  ASSERT_TRUE(comesTrue(loop, [this] { return answers.size() == 2; }));
  EXPECT_EQ(answers, (Answers{"a 1", "b cancelled"}));
}

TEST_F(TerminalAlert, IsPutByTheTimeItsAnswerIsRead) {
  present("a");
  rig.type("2\n");
  rig.settle();
  EXPECT_EQ(answers, Answers{"a 1"});
}

TEST_F(TerminalAlert, LetsNoTextCommandTheTerminal) {
  present({.messageText = "a\x1b[2Jb\nc\x07",
           .informativeText = "d\x1b]0;title\x07"
                              "e\tf\u009b31m\ng\0h\u202ei\r\nj\u2028k"s,
           .buttons = {"l\x1b[2Jm\nn"}});
  const std::string shown = onScreen();
  EXPECT_NE(shown.find("⚠ ab c \n"), std::string::npos) << shown;
  EXPECT_NE(shown.find("\nde f\ng h i\nj\nk\n"), std::string::npos) << shown;
  EXPECT_NE(shown.find("[1] lm n"), std::string::npos) << shown;
  for (const char control : "\x1b\x07\t"s) EXPECT_EQ(shown.find(control), std::string::npos);
}

TEST_F(TerminalAlert, ShowsLongLinesWhole) {
  present({.messageText = "a", .informativeText = std::string(50000, 'x'), .buttons = {"OK"}});
  EXPECT_TRUE(rig.screen.shows("\n" + std::string(50000, 'x') + "\n"));
  EXPECT_TRUE(rig.screen.shows("[1] OK"));
}

TEST_F(TerminalAlert, ShowsItsButtonsHoweverLongItsTextIs) {
  std::string output;
  while (output.size() < 3'000'000) output += "one line of a report that is far too long\n";
  present({.messageText = "a", .informativeText = output, .buttons = {"OK"}});
  ASSERT_TRUE(rig.screen.shows("⚠ a\n"));
  EXPECT_TRUE(rig.screen.shows("[1] OK"));
}

TEST_F(TerminalAlert, StaysOpenWhenTheMenuIsAskedFor) {
  present("a");
  onScreen();
  rig.face->printMenu();
  EXPECT_NE(onScreen().find("the-row"), std::string::npos);
  after("2\n");
  EXPECT_EQ(answers, Answers{"a 1"});
}

}  // namespace
}  // namespace kestrune::testing
