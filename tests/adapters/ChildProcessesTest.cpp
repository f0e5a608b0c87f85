#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tests/adapters/RealChildren.h"
#include "tests/rig/ProcessEnd.h"
#include "tests/rig/ResourceLimit.h"

namespace kestrune::testing {
namespace {

struct ChildProcess : ::testing::Test, RealChildren {
  static std::size_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  /// Whether this process has children, the ended ones that nobody reaped included.
  static bool hasChildren() {
    siginfo_t ignored{};
    return waitid(P_ALL, 0, &ignored, WEXITED | WNOHANG | WNOWAIT) == 0;
  }
};

TEST_F(ChildProcess, CountsAnEndBySignalAsFailure) {
  const auto child = launch({"raise", std::to_string(SIGKILL)});
  ASSERT_TRUE(ends(*child));
  EXPECT_NE(child->terminationStatus(), 0);
}

TEST_F(ChildProcess, ExitsInItsOwnWayWhenItIsAskedTo) {
  const auto child = launchUpTo({"on-term", "bye"});
  child->terminate();
  ASSERT_TRUE(ends(*child));
  EXPECT_EQ(child->terminationStatus(), 7);
  EXPECT_EQ(child->readOutput(Seconds{0}), "bye");
}

TEST_F(ChildProcess, IsReapedWhenItsEndIsSeen) {
  const auto child = launch({});
  ASSERT_TRUE(ends(*child));
  EXPECT_FALSE(hasChildren());
}

TEST_F(ChildProcess, GoesOnWhenNobodyLooksAfterItAnyMore) {
  auto child = launchUpTo({"ids"});
  const Leftover forgotten(numberBehind(child->readOutput(Seconds{0}), "pid"));
  child.reset();
  EXPECT_TRUE(forgotten.runs());
}

TEST_F(ChildProcess, IsReapedAtALaterLaunchWhenNobodyLookedAfterIt) {
  auto child = launchUpTo({"ids"});
  const pid_t pid = numberBehind(child->readOutput(Seconds{0}), "pid");
  child.reset();
  kill(pid, SIGKILL);
  siginfo_t state{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOWAIT), 0);
  const auto next = launch({});
  EXPECT_TRUE(ends(*next));
  EXPECT_FALSE(hasChildren());
}

TEST_F(ChildProcess, IsReapedAtOnceWhenItHadEndedBeforeItWasForgotten) {
  auto child = launch({});
  siginfo_t state{};
  ASSERT_EQ(waitid(P_ALL, 0, &state, WEXITED | WNOWAIT), 0);
  child.reset();
  EXPECT_FALSE(hasChildren());
}

TEST_F(ChildProcess, IsTheOnlyOneThatIsReaped) {
  const pid_t stranger = fork();
  if (stranger == 0) _exit(5);
  siginfo_t state{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(stranger), &state, WEXITED | WNOWAIT), 0);
  const auto child = launch({});
  EXPECT_TRUE(ends(*child));
  launch({}).reset();
  int status = 0;
  EXPECT_EQ(waitpid(stranger, &status, 0), stranger);
  EXPECT_EQ(WEXITSTATUS(status), 5);
}

TEST_F(ChildProcess, OutlivesThoseWhoLaunchedIt) {
  auto others = std::make_unique<ChildProcesses>();
  const auto child = std::move(*others->launch(TEST_CHILD, {"out", "x", "pause"}));
  others.reset();
  EXPECT_TRUE(child->isRunning());
  child->terminate();
  EXPECT_TRUE(ends(*child));
}

TEST_F(ChildProcess, EndsItsDescendantsWithItsGroupAlsoWhenItHasEndedItself) {
  const auto child = launch({"ids", "leave", "60"});
  ASSERT_TRUE(ends(*child));
  const pid_t group = numberBehind(child->readOutput(Seconds{0.05}), "pgid");
  EXPECT_EQ(kill(-group, 0), 0) << "nobody was left behind";
  child->terminateGroup();
  EXPECT_TRUE(groupEnds(group));
}

TEST_F(ChildProcess, SparesDescendantsInASessionOfTheirOwn) {
  const auto child = launch({"leave-session", "60"});
  ASSERT_TRUE(ends(*child));
  const Leftover service(numberBehind(child->readOutput(Seconds{0}), "left"));
  child->terminateGroup();
  EXPECT_TRUE(service.runs());
}

struct LaunchError {
  const char* name;
  std::string executable;
  int expected;
};

void PrintTo(const LaunchError& error, std::ostream* out) {
  *out << error.name;
}

struct FailedLaunch : ::testing::TestWithParam<LaunchError> {};
INSTANTIATE_TEST_SUITE_P(Each, FailedLaunch,
                         ::testing::Values(LaunchError{"MissingProgram", "/no/such/program", ENOENT},
                                           LaunchError{"Folder", "/", EACCES},
                                           LaunchError{"BelowAFile", TEST_CHILD "/x", ENOTDIR},
                                           LaunchError{"NoName", "", ENOENT},
                                           LaunchError{"NotExecutable", SOURCE_FOLDER "/LICENSE", EACCES}),
                         [](const auto& error) { return std::string(error.param.name); });

TEST_P(FailedLaunch, IsDescribedInTheWordsOfTheSystem) {
  ChildProcesses processes;
  const auto result = processes.launch(GetParam().executable, {});
  ASSERT_FALSE(result);
  EXPECT_EQ(result.reason(), std::strerror(GetParam().expected));
}

TEST_F(ChildProcess, DoesNotStartWithAnArgumentThatIsTooLong) {
  const auto result = processes.launch(TEST_CHILD, {"out", std::string(std::size_t{1} << 20, 'x')});
  ASSERT_FALSE(result);
  EXPECT_EQ(result.reason(), std::strerror(E2BIG));
}

TEST_F(ChildProcess, DoesNotStartWithoutDescriptorsForItsPipes) {
  Result<std::unique_ptr<Process>> result = Failure{};
  {
    const ResourceLimit none(RLIMIT_NOFILE, 0);
    result = processes.launch(TEST_CHILD, {});
  }
  ASSERT_FALSE(result);
  EXPECT_EQ(result.reason(), std::strerror(EMFILE));
}

TEST_F(ChildProcess, LeavesNoDescriptorOpen) {
  const std::size_t before = openDescriptors();
  for (int i = 0; i < 10; ++i) {
    const auto child = launch({"out", "x"});
    EXPECT_EQ(child->readOutput(patience), "x");
    EXPECT_TRUE(ends(*child));
    launch({"pause"})->terminate();
    EXPECT_NE(processes.launch("/no/such/program", {}).reason(), "");
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ChildProcess, GetsTheArgumentsAsTheyAre) {
  const auto child = launch({"out", "two words ", "out", "", "out", "'\"$HOME*\n"});
  EXPECT_EQ(child->readOutput(patience), "two words '\"$HOME*\n");
  EXPECT_TRUE(ends(*child));
}

TEST_F(ChildProcess, CanBeLaunchedByManyThreadsAtOnce) {
  std::atomic<int> successes = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < 5; ++i) {
        const std::string text = std::to_string(thread * 100 + i);
        const auto child = launch({"out", text, "exit", "0"});
        // The end of its pipes, which no sibling may hold open, is all that there is to wait for.
        if (child->readOutput(patience) != text) continue;
        while (child->isRunning()) std::this_thread::yield();
        if (child->terminationStatus() == 0) ++successes;
      }
    });
  }
  for (auto& each : threads) each.join();
  EXPECT_EQ(successes, 20);
  EXPECT_FALSE(hasChildren());
}

}  // namespace
}  // namespace kestrune::testing
