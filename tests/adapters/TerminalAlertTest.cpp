#include <csignal>

#include "tests/rig/FormViews.h"
#include "tests/rig/RecordingTarget.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

using namespace std::string_literals;
using Answers = std::vector<std::string>;

struct TerminalAlert : ::testing::Test {
  void SetUp() override {
    rig.face->setMenu({{{.id = 1, .title = "the-row"}}});
    rig.printed();
  }

  void present(const std::string& message) {
    rig.face->present(
        {[this, message] {
           ++described;
           return Alert{.messageText = message, .informativeText = "", .buttons = {"OK", "Cancel"}};
         },
         [this, message](const AlertAnswer& answer) {
           answers.push_back(message + (answer.button ? " " + std::to_string(*answer.button) : " cancelled"));
         }});
  }
  void changeMenu(const std::string& title) { rig.face->setMenu({{{.id = 1, .title = title}}}); }

  EventLoop loop;
  TerminalRig rig{loop, TerminalRig::Line::pipes};
  Answers answers;
  int described = 0;
};

TEST_F(TerminalAlert, TakesAnEmptyLineForTheFirstButton) {
  present("a");
  rig.after("\n");
  EXPECT_EQ(answers, Answers{"a 0"});
  present("b");
  rig.after(" \t\r\n");
  EXPECT_EQ(answers, (Answers{"a 0", "b 0"}));
  present("c");
  rig.after(" 2 \n1\n\n");  // the first line answers alert c; the others answer no alert
  EXPECT_EQ(answers, (Answers{"a 0", "b 0", "c 1"}));
}

TEST_F(TerminalAlert, HoldsTheMenuBackUntilAllAreAnswered) {
  present("a");
  present("b");
  EXPECT_EQ(described, 0);
  rig.printed();
  EXPECT_EQ(described, 1) << "the next one is described when its turn has come";
  changeMenu("meanwhile");
  changeMenu("at last");
  EXPECT_EQ(rig.printed(), "");
  EXPECT_EQ(rig.after("\n").find("at last"), std::string::npos);
  const std::string shown = rig.after("\n");
  EXPECT_NE(shown.find("at last"), std::string::npos);
  EXPECT_EQ(shown.find("meanwhile"), std::string::npos);
}

TEST_F(TerminalAlert, HoldsNotificationsBackUntilItIsAnswered) {
  present("a");
  rig.printed();
  for (const std::string text : {"same", "other", "same"}) rig.face->add({"id", "news", text});
  EXPECT_EQ(rig.printed(), "");
  const std::string shown = rig.after("\n");
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
  rig.printed();
  changeMenu("still supervised");
  EXPECT_NE(rig.printed().find("still supervised"), std::string::npos);
}

TEST_F(TerminalAlert, IsAnsweredByTheLastLineWithoutAnEnd) {
  present("a");
  present("b");
  rig.printed();
  rig.type("2");
  rig.endInput();
  ASSERT_TRUE(comesTrue(loop, [this] { return answers.size() == 2; }));
  EXPECT_EQ(answers, (Answers{"a 1", "b cancelled"}));
}

struct TerminalForm : ::testing::TestWithParam<TerminalRig::Line> {
  void SetUp() override {
    rig.face->setMenu({{{.id = 1, .title = "the-row"}}});
    ASSERT_TRUE(rig.screen.shows("the-row"));
  }

  void present(Alert alert) {
    alert.target = target;
    rig.present(std::move(alert), [this](const AlertAnswer& answer) { answers.push_back(answer); });
  }
  /// Types a line that is longer than allowed, but not its line end.
  void typeTooMuch() {
    for (int piece = 0; piece < (GetParam() == TerminalRig::Line::terminal ? 5 : 70); ++piece) {
      rig.type(std::string(1000, 'x'));
      rig.settle();
    }
  }
  bool isAnswered() {
    return comesTrue(loop, [this] { return !answers.empty(); });
  }

  EventLoop loop;
  TerminalRig rig{loop, GetParam()};
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  std::vector<AlertAnswer> answers;
};

INSTANTIATE_TEST_SUITE_P(On, TerminalForm,
                         ::testing::Values(TerminalRig::Line::pipes, TerminalRig::Line::terminal),
                         [](const auto& line) {
                           return line.param == TerminalRig::Line::pipes ? "Pipes" : "Terminal";
                         });

TEST_P(TerminalForm, IsBelowTheAlertThatItsButtonOpens) {
  target->onPerform = [this] {
    present({.messageText = "On top", .informativeText = "", .buttons = {"Fine"}});
  };
  present(form({button("Show", "show")}));
  present({.messageText = "Later", .informativeText = "", .buttons = {"Bye"}});
  EXPECT_TRUE(rig.screen.shows("[3] Show"));
  rig.type("3\n");
  EXPECT_TRUE(rig.screen.shows("[1] Fine"));
  EXPECT_EQ(target->performed, CallLog{"show"});
  EXPECT_EQ(rig.screen.count("Later"), 0U);
  rig.type("1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_TRUE(comesTrue(loop, [this] { return rig.screen.count("[3] Show") == 2; }));
  rig.type("1\n");
  EXPECT_TRUE(rig.screen.shows("[1] Bye"));
  EXPECT_EQ(answers.size(), 2U);
}

TEST_P(TerminalForm, TakesEachLineAsTheAnswerToTheOpenQuestion) {
  target->onPerform = [this] {
    present({.messageText = "On top", .informativeText = "", .buttons = {"Fine"}});
  };
  present(form({field("a", "1"), field("b", "2"), button("Show", "show")}));
  EXPECT_TRUE(rig.screen.shows("Field a"));
  // "3" opens an alert on top of the form. The empty line after "3" answers the alert, not the form.
  rig.type("new\n\n3\n\n2\n");
  EXPECT_TRUE(comesTrue(loop, [this] { return answers.size() == 2; }));
  EXPECT_EQ(answers.at(0).button, 0U);
  EXPECT_EQ(answers.at(0).fields.size(), 0U);
  EXPECT_EQ(answers.at(1).button, 1U);
  EXPECT_EQ(answers.at(1).fields.at("a"), "new");
}

TEST_P(TerminalForm, RefusesAnAnswerThatIsTooLongAndAsksAgain) {
  const bool isTerminal = GetParam() == TerminalRig::Line::terminal;
  present(form({field("a", "1"), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field a［1］> "));
  typeTooMuch();
  // A script may already have written its next answers into the pipe. They must be discarded, because the
  // form asks for "Field a" again.
  rig.type(isTerminal ? "\n" : "\nfor b\n1\n");
  const std::string limit = isTerminal ? "4094" : "65536";
  EXPECT_TRUE(
      rig.screen.shows("這一行太長，沒有採用：最多 " + limit + " 個位元組。請重新輸入。\nField a［1］> "));
  rig.type("new\n");
  EXPECT_TRUE(rig.screen.shows("Field b［2］> "));
  rig.type("\n1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields, (std::map<std::string, std::string>{{"a", "new"}, {"b", "2"}}));
}

TEST_P(TerminalForm, IsCancelledByAnEndWithinAnAnswerThatIsTooLong) {
  present(form({field("a", "1")}));
  EXPECT_TRUE(rig.screen.shows("Field a［1］> "));
  typeTooMuch();
  rig.endInput();
  // On a terminal, the first Ctrl-D only delivers the typed text. The second Ctrl-D ends the input.
  if (GetParam() == TerminalRig::Line::terminal) rig.endInput();
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].button, std::nullopt);
  EXPECT_TRUE(rig.screen.shows("這一行太長"));
}

TEST_P(TerminalForm, KeepsTheAnswerThatIsBeingTypedWhenTheMenuChanges) {
  present(form({field("a", "1"), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field a［1］> "));
  rig.type("ne");
  if (GetParam() == TerminalRig::Line::terminal) {
    EXPECT_TRUE(rig.screen.shows("> ne"));
  }
  rig.settle();
  rig.face->setMenu({{{.id = 1, .title = "changed"}}});
  rig.settle();
  rig.face->printMenu();
  EXPECT_TRUE(rig.screen.shows("changed"));
  rig.type("w\n");
  EXPECT_TRUE(rig.screen.shows("Field b［2］> "));
  rig.type("\n1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields.at("a"), "new");
}

struct TerminalSecret : TerminalForm {};
INSTANTIATE_TEST_SUITE_P(On, TerminalSecret, ::testing::Values(TerminalRig::Line::terminal),
                         [](const auto&) { return "Terminal"; });

TEST_P(TerminalSecret, IsNotSeenEvenWhenItIsTooLong) {
  present(form({field("key", "", ViewKind::secureTextField), field("b", "2")}));
  EXPECT_TRUE(rig.terminal.isEchoed());
  EXPECT_TRUE(rig.screen.shows("Field key（未填，輸入時不顯示）> "));
  // The first line is refused. The two lines typed behind it must be discarded.
  rig.type("sk-" + std::string(5000, 'x') + "\nsk-other\n1\n");
  EXPECT_TRUE(
      rig.screen.shows("輸入時不顯示）> \n這一行太長，沒有採用：最多 4094 個位元組。請重新輸入。\n"
                       "Field key（未填，輸入時不顯示）> "));
  EXPECT_FALSE(rig.terminal.isEchoed());
  rig.type("sk-short\n");
  EXPECT_TRUE(rig.screen.shows("輸入時不顯示）> \nField b［2］> "));
  EXPECT_TRUE(rig.terminal.isEchoed());
  rig.type("\n1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields.at("key"), "sk-short");
  EXPECT_EQ(rig.screen.count("sk-"), 0U);
}

TEST_P(TerminalSecret, RestoresTheEchoAtTheEndOfTheInput) {
  present(form({field("key", "", ViewKind::secureTextField)}));
  EXPECT_TRUE(rig.screen.shows("Field key"));
  rig.endInput();
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].button, std::nullopt);
  EXPECT_TRUE(rig.terminal.isEchoed());
}

TEST_P(TerminalSecret, KeepsTheEchoOffIfItWasOffBefore) {
  rig.terminal.setEcho(false);
  present(form({field("key", "", ViewKind::secureTextField), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field key"));
  rig.type("x\n");
  EXPECT_TRUE(rig.screen.shows("Field b"));
  EXPECT_FALSE(rig.terminal.isEchoed());
  rig.face->close();
  EXPECT_FALSE(rig.terminal.isEchoed());
}

TEST_P(TerminalSecret, IsAskedForAgainWithoutEchoAfterEachSIGCONT) {
  present(form({field("key", "", ViewKind::secureTextField)}));
  EXPECT_TRUE(rig.screen.shows("Field key"));
  rig.terminal.setEcho(true);  // as a shell does. At the second SIGCONT, the echo is still off
  for (std::size_t asked = 2; asked <= 3; ++asked) {
    raise(SIGCONT);
    EXPECT_TRUE(comesTrue(loop, [&] { return rig.screen.count("Field key") == asked; })) << "asks again";
    EXPECT_FALSE(rig.terminal.isEchoed());
  }
  rig.type("sk\n");
  EXPECT_TRUE(rig.screen.shows("按鈕編號> "));
  EXPECT_TRUE(rig.terminal.isEchoed());
}

}  // namespace
}  // namespace kestrune::testing
