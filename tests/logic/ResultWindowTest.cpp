#include <regex>
#include <set>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using ResultWindow = ControllerTest;

TEST_F(ResultWindow, ShowsItsTextUnchanged) {
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

TEST_F(ResultWindow, WaitsForTheOpenWindow) {
  controller->showResultWindow("a", "1", false);
  EXPECT_EQ(newCalls(), CallLog{"present alert"});
  controller->showResultWindow("b", "2", true);
  machine.loop.settle();
  EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert a"}));
  EXPECT_EQ(closeWindow(), informationWindow("a", "1"));
  EXPECT_EQ(closeWindow(), errorWindow("b", "2"));
}

using PostedNotifications = ControllerTest;

TEST_F(PostedNotifications, HaveRandomIdentifiers) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> identifiers;
  for (int i = 0; i < 100; ++i) controller->showNotification("same", "same");
  for (const Notification& each : machine.notifications.posted) {
    EXPECT_TRUE(std::regex_match(each.identifier, uuid)) << each.identifier;
    identifiers.insert(each.identifier);
  }
  EXPECT_EQ(identifiers.size(), 100U);
}

}  // namespace
}  // namespace kestrune::testing
