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
    rig.face->present({[this, alert] {
                         ++described;
                         return alert;
                       },
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
  int described = 0;
};

TEST_F(TerminalAlert, TakesAnEmptyLineForTheFirstButton) {
  present("a");
  after("\n");
  EXPECT_EQ(answers, Answers{"a 0"});
  present("b");
  after(" \t\r\n");
  EXPECT_EQ(answers, (Answers{"a 0", "b 0"}));
  present("c");
  after(" 2 \n1\n\n");  // only the first line is an answer
  EXPECT_EQ(answers, (Answers{"a 0", "b 0", "c 1"}));
}

TEST_F(TerminalAlert, HoldsTheMenuBackUntilAllAreAnswered) {
  present("a");
  present("b");
  EXPECT_EQ(described, 0);
  onScreen();
  EXPECT_EQ(described, 1) << "the next one is described when its turn has come";
  changeMenu("meanwhile");
  changeMenu("at last");
  EXPECT_EQ(onScreen(), "");
  EXPECT_EQ(after("\n").find("at last"), std::string::npos);
  const std::string shown = after("\n");
  EXPECT_NE(shown.find("at last"), std::string::npos);
  EXPECT_EQ(shown.find("meanwhile"), std::string::npos);
}

TEST_F(TerminalAlert, HoldsNotificationsBackUntilItIsAnswered) {
  present("a");
  onScreen();
  for (const std::string text : {"same", "other", "same"}) rig.face->add({"id", "news", text});
  EXPECT_EQ(onScreen(), "");
  const std::string shown = after("\n");
  EXPECT_TRUE(shown.starts_with("\nnews：same\n\nnews：other\n\n")) << shown;
  EXPECT_EQ(rig.desktop.posted.size(), 3U);
}

TEST_F(TerminalAlert, IsCancelledWhenTheInputHasEndedAndTheMenuLivesOn) {
  rig.endInput();
  rig.settle();
  present("late");
  EXPECT_EQ(answers, Answers{}) << "an answer must not come before the question is put";
  rig.settle();
  EXPECT_EQ(answers, Answers{"late cancelled"});
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
