#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using ResultWindow = ControllerTest;

TEST_F(ResultWindow, ShowsWhatItIsGivenAsItIs) {
  for (const std::string& content :
       {std::string(), std::string("  a\tb\r\n\n"), std::string("[OK] <b>&amp;</b> %s\\n"),
        std::string("\x1b[31mred\x1b[0m"), std::string(100'000, 'x') + "\n好"}) {
    controller->showResultWindow(content, content, false);
    machine.loop.settle();
    EXPECT_EQ(closeWindow(), (Alert{.style = AlertStyle::informational,
                                    .messageText = content,
                                    .informativeText = content,
                                    .buttons = {"好"}}));
  }
}

TEST_F(ResultWindow, IsOnlyAskedForAndWaitsForTheOneThatIsOpen) {
  controller->showResultWindow("a", "1", false);
  EXPECT_EQ(newCalls(), CallLog{"present alert"});
  controller->showResultWindow("b", "2", true);
  machine.loop.settle();
  EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert a"}));
  EXPECT_EQ(closeWindow(), informationWindow("a", "1"));
  EXPECT_EQ(closeWindow(), errorWindow("b", "2"));
}

TEST_F(ResultWindow, AnswerChangesNothingAlsoWhenTheControllerIsGone) {
  for (const std::optional<std::size_t> button : {std::optional<std::size_t>(0), {}}) {
    controller->showResultWindow("目前狀態", "x", true);
    machine.loop.settle();
    newCalls();
    machine.alerts.answer(button);
    machine.loop.settle();
    EXPECT_EQ(newCalls(), CallLog{});
  }
  const std::weak_ptr<AppDelegate> weak = controller;
  controller->showResultWindow("目前狀態", "x", false);
  machine.loop.settle();
  controller.reset();
  EXPECT_TRUE(weak.expired());
  machine.alerts.answer(0);
}

}  // namespace
}  // namespace kestrune::testing
