#include <regex>
#include <set>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct PostedNotifications : ControllerTest {};

TEST_F(PostedNotifications, PermissionIsAskedForAlertsAndSoundsButNoBadge) {
  controller->requestNotificationPermission();
  EXPECT_EQ(newCalls(), CallLog{"requestAuthorization 6"});
}

TEST_F(PostedNotifications, CarryTitleAndBodyAsGiven) {
  controller->showNotification("Kestrune 網路已變更", "a\n<b>&");
  ASSERT_EQ(machine.notifications.posted.size(), 1U);
  EXPECT_EQ(machine.notifications.posted[0].title, "Kestrune 網路已變更");
  EXPECT_EQ(machine.notifications.posted[0].body, "a\n<b>&");
}

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

TEST_F(PostedNotifications, AreAddedAtOnce) {
  controller->showNotification("a", "b");
  EXPECT_EQ(newCalls(), CallLog{"notify a"});
}

}  // namespace
}  // namespace kestrune::testing
