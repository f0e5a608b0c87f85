#include <gtest/gtest.h>

#include "tests/adapters/RealChildren.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {
namespace {

constexpr Seconds endless{1e9};

struct FakeChildren {
  CallLog log;
  VirtualClock clock;
  FakeProcesses processes{clock, log};

  std::unique_ptr<Process> launch(const ChildScript& script) {
    processes.scripts = {{"child", script}};
    return std::move(*processes.launch("/bin/program", {"child"}));
  }
  Result<std::unique_ptr<Process>> launchInVain() {
    processes.launchError = "No such file or directory";
    return processes.launch("/no/such/program", {"child"});
  }
  bool ends(Process& child) {
    for (int second = 0; second < 100 && child.isRunning(); ++second) clock.sleep(Seconds{1});
    return !child.isRunning();
  }
};

struct TrueChildren : RealChildren {
  std::unique_ptr<Process> launch(const ChildScript& script) {
    Arguments arguments{"out", script.output};
    if (script.ignoresTerminate) arguments.insert(arguments.end(), {"ignore", std::to_string(SIGTERM)});
    if (script.ignoresInterrupt) arguments.insert(arguments.end(), {"ignore", std::to_string(SIGINT)});
    if (script.runtime > Seconds{0}) return launchUpTo(arguments);
    arguments.insert(arguments.end(), {"exit", std::to_string(script.status)});
    return RealChildren::launch(arguments);
  }
  Result<std::unique_ptr<Process>> launchInVain() { return processes.launch("/no/such/program", {"child"}); }
};

template <typename Children>
struct ProcessesContract : ::testing::Test {
  Children children;
};

using Kinds = ::testing::Types<FakeChildren, TrueChildren>;
TYPED_TEST_SUITE(ProcessesContract, Kinds);

TYPED_TEST(ProcessesContract, ReportsTheStatusOfAFailure) {
  const auto child = this->children.launch({.status = 3});
  ASSERT_TRUE(this->children.ends(*child));
  EXPECT_EQ(child->terminationStatus(), 3);
}

TYPED_TEST(ProcessesContract, ReadsTheOutputOfARunningChild) {
  const auto child = this->children.launch({.runtime = endless, .output = "so far"});
  EXPECT_EQ(child->readOutput(Seconds{0}), "so far");
  EXPECT_TRUE(child->isRunning());
  child->terminate();
  EXPECT_TRUE(this->children.ends(*child));
}

TYPED_TEST(ProcessesContract, EachSignalEndsAChild) {
  for (const auto& end : {&Process::terminate, &Process::interrupt, &Process::terminateGroup}) {
    const auto child = this->children.launch({.runtime = endless});
    EXPECT_TRUE(child->isRunning());
    (*child.*end)();
    ASSERT_TRUE(this->children.ends(*child));
    EXPECT_NE(child->terminationStatus(), 0);
  }
}

TYPED_TEST(ProcessesContract, ChildThatIgnoresOneSignalEndsByTheOther) {
  const auto child = this->children.launch({.runtime = endless, .ignoresTerminate = true});
  child->terminate();
  EXPECT_TRUE(child->isRunning());
  child->interrupt();
  EXPECT_TRUE(this->children.ends(*child));
  const auto other = this->children.launch({.runtime = endless, .ignoresInterrupt = true});
  other->interrupt();
  EXPECT_TRUE(other->isRunning());
  other->terminate();
  EXPECT_TRUE(this->children.ends(*other));
}

TYPED_TEST(ProcessesContract, SignalsDoNotChangeAnEndedChild) {
  const auto child = this->children.launch({.output = "字\n"});
  ASSERT_TRUE(this->children.ends(*child));
  child->terminate();
  child->interrupt();
  child->terminateGroup();
  EXPECT_FALSE(child->isRunning());
  EXPECT_EQ(child->terminationStatus(), 0);
  EXPECT_EQ(child->readOutput(Seconds{0}), "字\n");
}

TYPED_TEST(ProcessesContract, FailedLaunchHasAReason) {
  const auto result = this->children.launchInVain();
  ASSERT_FALSE(result);
  EXPECT_EQ(result.reason(), "No such file or directory");
}

TYPED_TEST(ProcessesContract, ReservingEndsEveryChild) {
  const auto first =
      this->children.launch({.runtime = endless, .ignoresTerminate = true, .ignoresInterrupt = true});
  const auto second = this->children.launch({.runtime = endless});
  this->children.processes.reserveForThisThread();
  ASSERT_TRUE(this->children.ends(*first));
  ASSERT_TRUE(this->children.ends(*second));
  EXPECT_NE(first->terminationStatus(), 0);
  EXPECT_NE(second->terminationStatus(), 0);
}

TYPED_TEST(ProcessesContract, ReservingThreadCanStillLaunch) {
  this->children.processes.reserveForThisThread();
  const auto child = this->children.launch({.output = "last"});
  ASSERT_TRUE(this->children.ends(*child));
  EXPECT_EQ(child->terminationStatus(), 0);
  EXPECT_EQ(child->readOutput(Seconds{0}), "last");
}

}  // namespace
}  // namespace kestrune::testing
