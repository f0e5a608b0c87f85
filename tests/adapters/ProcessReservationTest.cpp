#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "tests/adapters/RealChildren.h"
#include "tests/rig/ProcessEnd.h"

namespace kestrune::testing {
namespace {

struct ReservedProcesses : ::testing::Test, RealChildren {};

TEST_F(ReservedProcesses, EndTheWholeGroupOfAChild) {
  const auto child = launchUpTo({"ids", "ignore", std::to_string(SIGTERM), "leave", "60"});
  processes.reserveForThisThread();
  EXPECT_TRUE(ends(*child));
  // The pipes end with the last process that holds them.
  EXPECT_TRUE(groupEnds(numberBehind(child->readOutput(patience), "pgid")));
}

TEST_F(ReservedProcesses, EndAChildThatWasGivenUp) {
  auto child = launchUpTo({"ids", "ignore", std::to_string(SIGTERM), "ignore", std::to_string(SIGINT)});
  const Leftover givenUp(numberBehind(child->readOutput(Seconds{0}), "pid"));
  child->terminate();
  child->interrupt();
  child.reset();
  ASSERT_TRUE(givenUp.runs());
  processes.reserveForThisThread();
  EXPECT_TRUE(kestrune::testing::ends(givenUp.pid));
}

TEST_F(ReservedProcesses, SpareServicesInASessionOfTheirOwn) {
  const auto child = launchUpTo({"leave-session", "60"});
  const Leftover service(numberBehind(child->readOutput(Seconds{0}), "left"));
  processes.reserveForThisThread();
  ASSERT_TRUE(ends(*child));
  EXPECT_TRUE(service.runs());
}

TEST_F(ReservedProcesses, LaunchNothingForAnyOtherThread) {
  processes.reserveForThisThread();
  Result<std::unique_ptr<Process>> refused = Failure{};
  std::thread([&] { refused = processes.launch(TEST_CHILD, {}); }).join();
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.reason(), std::strerror(ECANCELED));
}

TEST_F(ReservedProcesses, LaunchForTheThreadThatReservedThemWhicheverItIs) {
  std::thread([&] {
    processes.reserveForThisThread();
    const auto child = launch({"out", "here"});
    EXPECT_EQ(child->readOutput(patience), "here");
  }).join();
  EXPECT_EQ(processes.launch(TEST_CHILD, {}).reason(), std::strerror(ECANCELED));
}

TEST_F(ReservedProcesses, LeaveThoseAloneThatHaveEnded) {
  const auto child = launch({"ids", "leave-session", "60"});
  ASSERT_TRUE(ends(*child));
  const Leftover service(numberBehind(child->readOutput(Seconds{0}), "left"));
  processes.reserveForThisThread();
  EXPECT_EQ(child->terminationStatus(), 0);
  EXPECT_TRUE(service.runs());
}

}  // namespace
}  // namespace kestrune::testing
