#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct ResultWindow : ControllerTest {};

TEST_F(ResultWindow, InformsAndHasOneButton) {
  controller->showResultWindow("目前狀態", "x", false);
  machine.loop.settle();
  ASSERT_EQ(machine.alerts.shown.size(), 1U);
  const Alert& alert = machine.alerts.shown[0];
  EXPECT_EQ(alert.style, AlertStyle::informational);
  EXPECT_EQ(alert.messageText, "目前狀態");
  EXPECT_EQ(alert.informativeText, "x");
  EXPECT_EQ(alert.buttons, std::vector<std::string>{"好"});
  EXPECT_FALSE(alert.accessoryView);
}

TEST_F(ResultWindow, WarnsOfAnErrorAndIsTheSameOtherwise) {
  controller->showResultWindow("目前狀態", "x", true);
  machine.loop.settle();
  Alert expected = informationWindow("目前狀態", "x");
  expected.style = AlertStyle::warning;
  EXPECT_EQ(machine.alerts.shown, std::vector{expected});
}

TEST_F(ResultWindow, ShowsWhatItIsGivenAsItIs) {
  const std::string contents[] = {"",
                                  "\n",
                                  "  a\tb\r\n\n",
                                  "[OK] <b>&amp;</b> %s\\n",
                                  "\x1b[31mred\x1b[0m",
                                  std::string(100'000, 'x') + "\n好"};
  for (const std::string& content : contents) {
    controller->showResultWindow(content, content, false);
    machine.loop.settle();
    EXPECT_EQ(machine.alerts.shown.back(), informationWindow(content, content));
    machine.alerts.answer(0);
  }
}

TEST_F(ResultWindow, ReturnsBeforeItShows) {
  controller->showResultWindow("目前狀態", "x", false);
  EXPECT_EQ(newCalls(), CallLog{"present alert"});
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), CallLog{"show alert 目前狀態"});
}

TEST_F(ResultWindow, SecondOneWaitsForTheFirstAndStillSaysItsOwn) {
  controller->showResultWindow("a", "1", false);
  controller->showResultWindow("b", "2", true);
  machine.loop.settle();
  EXPECT_EQ(machine.alerts.shown, std::vector{informationWindow("a", "1")});
  machine.alerts.answer(0);
  machine.loop.runMain();
  EXPECT_EQ(machine.alerts.shown, (std::vector{informationWindow("a", "1"), errorWindow("b", "2")}));
}

TEST_F(ResultWindow, HoldsUpNothingWhileItIsOpen) {
  startUp();
  controller->showResultWindow("目前狀態", "x", false);
  machine.loop.settle();
  const auto queries = statusQueries();
  backendAnswers({.output = "[FAIL] tunnel: down"});
  machine.loop.advance(Seconds{20.1});
  EXPECT_EQ(statusQueries(), queries + 1);
  EXPECT_EQ(statusRow(), "🔴 連線狀態：異常");
}

TEST_F(ResultWindow, AnswerChangesNothing) {
  makeStatusItem();
  for (const std::optional<std::size_t> button : {std::optional<std::size_t>(0), {}}) {
    controller->showResultWindow("目前狀態", "x", true);
    machine.loop.settle();
    newCalls();
    machine.alerts.answer(button);
    machine.loop.settle();
    EXPECT_EQ(newCalls(), CallLog{});
  }
}

TEST_F(ResultWindow, OpenOneDoesNotKeepTheControllerAlive) {
  const std::weak_ptr<AppDelegate> weak = controller;
  controller->showResultWindow("目前狀態", "x", false);
  machine.loop.settle();
  controller.reset();
  EXPECT_TRUE(weak.expired());
  machine.alerts.answer(0);
}

}  // namespace
}  // namespace kestrune::testing
