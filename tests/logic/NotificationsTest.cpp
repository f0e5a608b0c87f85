#include <regex>
#include <set>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using PostedNotifications = ControllerTest;

TEST_F(PostedNotifications, HaveARandomIdentifierEach) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> identifiers;
  for (int i = 0; i < 100; ++i) controller->showNotification("same", "same");
  for (const Notification& each : machine.notifications.posted) {
    EXPECT_TRUE(std::regex_match(each.identifier, uuid)) << each.identifier;
    identifiers.insert(each.identifier);
  }
  EXPECT_EQ(identifiers.size(), 100U);
}

TEST_F(PostedNotifications, AreAddedAtOnceAsGiven) {
  controller->showNotification("a", "a\n<b>&");
  EXPECT_EQ(newCalls(), CallLog{"notify a"});
  EXPECT_EQ(machine.notifications.posted.at(0).body, "a\n<b>&");
}

}  // namespace
}  // namespace kestrune::testing
