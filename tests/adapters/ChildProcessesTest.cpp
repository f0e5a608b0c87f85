#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <bitset>
#include <cstring>
#include <filesystem>
#include <thread>

#include "adapters/system/System.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ProcessEnd.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/TerminalRig.h"

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

struct ChildProcess : ::testing::Test, RealChildren {
  /// Returns whether this process has children, including zombies.
  static bool hasChildren() {
    siginfo_t ignored{};
    return waitid(P_ALL, 0, &ignored, WEXITED | WNOHANG | WNOWAIT) == 0;
  }
};

TEST_F(ChildProcess, AbandonedChildIsReapedAtTheNextLaunch) {
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

TEST_F(ChildProcess, EndedChildIsReapedWhenItsProcessIsDestroyed) {
  auto child = launch({});
  siginfo_t state{};
  ASSERT_EQ(waitid(P_ALL, 0, &state, WEXITED | WNOWAIT), 0);
  child.reset();
  EXPECT_FALSE(hasChildren());
}

TEST_F(ChildProcess, ChildrenOfOthersAreNotReaped) {
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

TEST_F(ChildProcess, ProcessOutlivesChildProcesses) {
  auto others = std::make_unique<ChildProcesses>();
  const auto child = std::move(*others->launch(TEST_CHILD, {"out", "x", "pause"}));
  others.reset();
  EXPECT_TRUE(child->isRunning());
  child->terminate();
  EXPECT_TRUE(ends(*child));
}

TEST_F(ChildProcess, TerminateGroupEndsDescendantsOfAnEndedChild) {
  const auto child = launch({"ids", "leave", "60"});
  ASSERT_TRUE(ends(*child));
  const pid_t group = numberBehind(child->readOutput(Seconds{0.05}), "pgid");
  EXPECT_EQ(kill(-group, 0), 0) << "nobody was left behind";
  child->terminateGroup();
  EXPECT_TRUE(groupEnds(group));
}

TEST_F(ChildProcess, DescendantsInOtherSessionsAreSpared) {
  const auto child = launch({"leave-session", "60"});
  ASSERT_TRUE(ends(*child));
  const Leftover service(numberBehind(child->readOutput(Seconds{0}), "left"));
  child->terminateGroup();
  EXPECT_TRUE(service.runs());
  processes.reserveForThisThread();
  EXPECT_TRUE(service.runs());
  EXPECT_EQ(child->terminationStatus(), 0);
}

TEST_F(ChildProcess, FailedLaunchHasTheSystemsErrorMessage) {
  const auto expect = [this](int error, const std::string& executable, const std::string& argument = {}) {
    EXPECT_EQ(processes.launch(executable, {argument}).reason(), std::strerror(error)) << executable;
  };
  expect(ENOENT, "/no/such/program");
  expect(EACCES, "/");
  expect(ENOTDIR, TEST_CHILD "/x");
  expect(ENOENT, "");
  expect(EACCES, SOURCE_FOLDER "/LICENSE");
  expect(E2BIG, TEST_CHILD, std::string(std::size_t{1} << 20, 'x'));
}

TEST_F(ChildProcess, ManyThreadsCanLaunchAtOnce) {
  std::atomic<int> successes = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < 5; ++i) {
        const std::string text = std::to_string(thread * 100 + i);
        const auto child = launch({"out", text, "exit", "0"});
        // If another child had inherited the write end of the pipe of `child`, that pipe would have no end of
        // file when `child` ends, and readOutput would time out.
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

/// Tests `reserveForThisThread`, which kills all children and lets only the calling thread launch more.
struct ReservedProcesses : ::testing::Test, RealChildren {};

TEST_F(ReservedProcesses, WholeGroupOfAChildIsKilled) {
  const auto child = launchUpTo({"ids", "ignore", std::to_string(SIGTERM), "leave", "60"});
  processes.reserveForThisThread();
  EXPECT_TRUE(ends(*child));
  // `ids` has printed the ID of the child's process group ("pgid"). The descendant that `leave` forked is in
  // the same group.
  EXPECT_TRUE(groupEnds(numberBehind(child->readOutput(patience), "pgid")));
}

TEST_F(ReservedProcesses, AbandonedChildIsKilled) {
  auto child = launchUpTo({"ids", "ignore", std::to_string(SIGTERM), "ignore", std::to_string(SIGINT)});
  const Leftover givenUp(numberBehind(child->readOutput(Seconds{0}), "pid"));
  child->terminate();
  child->interrupt();
  child.reset();
  ASSERT_TRUE(givenUp.runs());
  processes.reserveForThisThread();
  EXPECT_TRUE(kestrune::testing::ends(givenUp.pid));
}

TEST_F(ReservedProcesses, OnlyTheReservingThreadCanLaunch) {
  std::thread([&] {
    processes.reserveForThisThread();
    const auto child = launch({"out", "here"});
    EXPECT_EQ(child->readOutput(patience), "here");
  }).join();
  EXPECT_EQ(processes.launch(TEST_CHILD, {}).reason(), std::strerror(ECANCELED));
}

struct ChildInheritance : ::testing::Test, RealChildren {
  using Signals = std::bitset<64>;
  inline static const Signals none;

  /// Returns the child's signals in the line `kind` (such as SigBlk) of /proc/PID/status. Bit 0 is signal 1.
  Signals signals(const std::string& kind) {
    const std::string all = outputOf({"signals"});
    Signals found = std::stoull(all.substr(all.find(kind + ":\t") + kind.size() + 2), nullptr, 16);
    // glibc uses the signals from 32 to SIGRTMIN - 1 for itself, so the test ignores them.
    for (int own = 32; own < SIGRTMIN; ++own) found.reset(static_cast<std::size_t>(own - 1));
    return found;
  }
};

TEST_F(ChildInheritance, ChildInheritsOnlyStandardDescriptors) {
  const FileDescriptor low(open("/dev/null", O_RDWR));
  const FileDescriptor high(fcntl(low.get(), F_DUPFD, 900));
  ASSERT_EQ(fcntl(low.get(), F_GETFD), 0) << "must be one that a child inherits";
  ASSERT_EQ(fcntl(high.get(), F_GETFD), 0) << "must be one that a child inherits";
  EXPECT_EQ(outputOf({"descriptors"}), "0 1 2 ");
  const PipeEnds pipe;
  const StandardStreams streams(pipe.reading.get(), STDOUT_FILENO);
  ASSERT_EQ(write(pipe.writing.get(), "a line\n", 7), 7);
  EXPECT_EQ(outputOf({"-c", "read -r line; echo \"$line\""}, "/bin/sh"), "a line\n");
}

TEST_F(ChildInheritance, PipesWorkWhenStandardDescriptorsAreClosed) {
  const auto withoutAny = [] {
    RealChildren children;
    const int report = dup(STDERR_FILENO);
    for (const int each : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(each);
    const auto child = children.launch({"err", "b", "out", "a"});
    _exit(child->readOutput(patience) == "ab" && children.ends(*child) && report > 0 ? 0 : 1);
  };
  EXPECT_EXIT(withoutAny(), ::testing::ExitedWithCode(0), "");
}

TEST_F(ChildInheritance, ChildNeitherBlocksNorIgnoresSignals) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  EXPECT_EQ(signals("SigBlk"), none);
  for (const int each : {SIGPIPE, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2})
    std::signal(each, SIG_IGN);
  EXPECT_EQ(signals("SigIgn"), none);
}

TEST_F(ChildInheritance, ChildLeadsItsOwnSessionAndGroup) {
  const std::string ids = outputOf({"ids"});
  const pid_t pid = numberBehind(ids, "pid");
  EXPECT_GT(pid, 0);
  EXPECT_EQ(numberBehind(ids, "pgid"), pid);
  EXPECT_EQ(numberBehind(ids, "sid"), pid);
}

TEST_F(ChildInheritance, ChildInheritsEnvironmentAndWorkingDirectory) {
  const ScopedVariable variable("KESTRUNE_TEST_VARIABLE", "a value, 值");
  const std::filesystem::path before = std::filesystem::current_path();
  const std::string here = std::filesystem::canonical(folder.file("."));
  std::filesystem::current_path(here);
  EXPECT_EQ(outputOf({"-c", "echo \"$KESTRUNE_TEST_VARIABLE\"; pwd -P"}, "/bin/sh"),
            "a value, 值\n" + here + "\n");
  std::filesystem::current_path(before);
}

}  // namespace
}  // namespace kestrune::testing
