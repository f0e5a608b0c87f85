#include <gtest/gtest.h>

#include "tests/adapters/NotifyingDesk.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {
namespace {

struct FakeCenter : ::testing::Test {
  CallLog log;
  FakeNotifications fake{log};

  void start() {}
  Notifications& center() { return fake; }
  std::vector<std::string> posted(std::size_t) const {
    std::vector<std::string> titles;
    for (const auto& each : fake.posted) titles.push_back(each.title);
    return titles;
  }
};

struct LinuxCenter : NotifyingDesk {
  void start() {
    bus.start();
    daemon = serve(plain);
    connect();
  }
  Notifications& center() { return *notifications; }
  std::vector<std::string> posted(std::size_t count) {
    EXPECT_TRUE(count == 0 ? trip.succeeds(loop) : comesTo(count + 1));
    std::vector<std::string> titles;
    for (const auto& call : daemon->calls()) {
      const std::string before = "'/logo.png', '";
      const auto at = call.find(before);
      if (at == std::string::npos) continue;
      const auto from = at + before.size();
      titles.push_back(call.substr(from, call.find('\'', from) - from));
    }
    return titles;
  }
};

template <typename Center>
struct NotificationsContract : Center {
  void SetUp() override { this->start(); }
};
using Centers = ::testing::Types<FakeCenter, LinuxCenter>;
TYPED_TEST_SUITE(NotificationsContract, Centers);

TYPED_TEST(NotificationsContract, PostsEachInOrderAlsoWhenTheyAreAlike) {
  this->center().add({"1", "first", "body"});
  this->center().add({"2", "second", "body"});
  this->center().add({"3", "second", "body"});
  EXPECT_EQ(this->posted(3), (std::vector<std::string>{"first", "second", "second"}));
}

TYPED_TEST(NotificationsContract, PostsNothingForTheAuthorization) {
  this->center().requestAuthorization(static_cast<unsigned>(NotificationOption::alert) |
                                      static_cast<unsigned>(NotificationOption::sound));
  EXPECT_EQ(this->posted(0), std::vector<std::string>{});
}

}  // namespace
}  // namespace kestrune::testing
