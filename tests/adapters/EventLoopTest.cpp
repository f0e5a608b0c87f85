#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>

#include "adapters/children/ChildProcesses.h"
#include "adapters/children/Spawn.h"
#include "adapters/system/FileDescriptor.h"
#include "tests/adapters/Loops.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/StandInDialogs.h"

namespace kestrune::testing {
namespace {

using ::testing::ExitedWithCode;

/// A whole run of the application, which tells of its course on standard error and ends the process.
struct WholeRun : ApplicationDelegate {
  EventLoop loop;
  std::function<void(WholeRun&)> onLaunch;
  std::function<void(WholeRun&)> onTerminate;

  static void say(const char* words) { std::fputs(words, stderr); }

  void applicationDidFinishLaunching() override {
    say("launched, ");
    onLaunch(*this);
  }
  void applicationWillTerminate() override {
    say("terminating, ");
    if (onTerminate) onTerminate(*this);
    say("end");
  }
  [[noreturn]] void untilTheEnd() { _exit(loop.run(*this)); }
};

void signalThisProcess(int number) {
  kill(getpid(), number);
}

struct EndingSignal : ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Each, EndingSignal, ::testing::Values(SIGTERM, SIGINT, SIGHUP, SIGQUIT),
                         [](const auto& signal) { return std::string(sigabbrev_np(signal.param)); });

TEST_P(EndingSignal, EndsTheApplicationInOrder) {
  const auto run = [] {
    WholeRun app;
    app.onLaunch = [](WholeRun&) { signalThisProcess(GetParam()); };
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^launched, terminating, end$");
}

TEST_P(EndingSignal, DoesNotCutTheEndShort) {
  const auto run = [] {
    WholeRun app;
    app.onLaunch = [](WholeRun& self) { self.loop.terminate(); };
    app.onTerminate = [](WholeRun&) { signalThisProcess(GetParam()); };
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^launched, terminating, end$");
}

TEST_P(EndingSignal, EndsTheApplicationOnceHoweverOftenItComes) {
  const auto run = [] {
    WholeRun app;
    app.onLaunch = [](WholeRun&) {
      for (const int each : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) signalThisProcess(each);
    };
    app.onTerminate = [](WholeRun&) { signalThisProcess(GetParam()); };
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^launched, terminating, end$");
}

TEST_P(EndingSignal, PreventsTheLaunchWhenItComesBefore) {
  const auto run = [] {
    WholeRun app;
    app.onLaunch = [](WholeRun&) {};
    signalThisProcess(GetParam());
    app.loop.runUntil([] { return false; });
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^$");
}

TEST(IgnoredHangup, StaysIgnored) {
  const auto run = [] {
    std::signal(SIGHUP, SIG_IGN);
    WholeRun app;
    app.onLaunch = [](WholeRun& self) {
      signalThisProcess(SIGHUP);
      self.loop.mainQueue().asyncAfter(Seconds{0.01}, [] {
        WholeRun::say("still there, ");
        signalThisProcess(SIGTERM);
      });
    };
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^launched, still there, terminating, end$");
}

TEST(UserSignals, AreIgnored) {
  const auto run = [] {
    WholeRun app;
    app.onLaunch = [](WholeRun& self) {
      for (const int each : {SIGUSR1, SIGUSR2}) signalThisProcess(each);
      WholeRun::say("still there, ");
      self.loop.terminate();
    };
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^launched, still there, terminating, end$");
}

TEST(IgnoredChildSignal, LosesNoExitStatus) {
  const auto run = [] {
    // As some programs leave it to those that they start.
    std::signal(SIGCHLD, SIG_IGN);
    WholeRun app;
    app.onLaunch = [](WholeRun& self) {
      ChildProcesses processes;
      const auto child = std::move(*processes.launch(TEST_CHILD, {"exit", "0"}));
      child->readOutput(patience);
      EXPECT_TRUE(comesTrue(self.loop, [&] {
        self.loop.mainQueue().async([] {});
        return !child->isRunning();
      }));
      WholeRun::say(child->terminationStatus() == 0 ? "success, " : "failure, ");
      self.loop.terminate();
    };
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^launched, success, terminating, end$");
}

TEST(EndOfTheApplication, ClosesTheWindowsBeforeTheDelegateHearsOfIt) {
  const auto run = [] {
    WholeRun app;
    app.loop.onTerminate([] { WholeRun::say("closing, "); });
    app.onLaunch = [](WholeRun& self) { self.loop.terminate(); };
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^launched, closing, terminating, end$");
}

TEST(EndOfTheApplication, ClosesNoWindowsOfOneThatWasNeverLaunched) {
  const auto run = [] {
    WholeRun app;
    app.loop.onTerminate([] { WholeRun::say("closing, "); });
    app.loop.terminate();
    app.untilTheEnd();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "^$");
}

struct EventLoopAlone : ::testing::Test {
  RealLoop machine;
  EventLoop& loop = machine.loop;
};

TEST_F(EventLoopAlone, MakesABrokenPipeAnErrorInsteadOfTheEnd) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);
  EXPECT_EQ(write(ends[1], "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  close(ends[1]);
}

TEST_F(EventLoopAlone, MakesAFileThatIsTooLargeAnErrorInsteadOfTheEnd) {
  const ScratchFolder folder;
  const FileDescriptor file(open(folder.file("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const ResourceLimit noRoom(RLIMIT_FSIZE, 0);
  EXPECT_EQ(write(file.get(), "x", 1), -1);
  EXPECT_EQ(errno, EFBIG);
}

TEST_F(EventLoopAlone, LeavesTheSignalsToTheMainThread) {
  const auto worker = loop.makeSerialQueue("worker", QualityOfService::standard, QueueTarget::ownThread);
  std::promise<sigset_t> told;
  worker->async([&] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    told.set_value(mask);
  });
  const sigset_t mask = told.get_future().get();
  for (const int each : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD}) {
    EXPECT_TRUE(sigismember(&mask, each)) << sigabbrev_np(each);
  }
}

TEST_F(EventLoopAlone, HandlesASignalForAsLongAsItsSourceLives) {
  int handled = 0;
  auto source = loop.onSignal(SIGUSR1, [&] { ++handled; });
  raise(SIGUSR1);
  EXPECT_TRUE(comesTrue(loop, [&] { return handled == 1; }));
  raise(SIGUSR1);
  EXPECT_TRUE(comesTrue(loop, [&] { return handled == 2; }));
}

TEST_F(EventLoopAlone, LetsAHandlerTakeItsOwnSourceAway) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor output(ends[0]);
  const FileDescriptor input(ends[1]);
  int handled = 0;
  EventSource writable;
  EventSource delayed;
  EventSource signalled;
  // A text of its own shows whether a handler outlives its source while it runs.
  const std::string text = "long enough to be no small string";
  writable = loop.onDescriptor(input.get(), EPOLLOUT, [&, text] {
    writable.reset();
    handled += text.starts_with("long");
  });
  delayed = loop.after(Seconds{0.001}, [&, text] {
    delayed.reset();
    handled += text.starts_with("long");
  });
  signalled = loop.onSignal(SIGUSR1, [&, text] {
    signalled.reset();
    handled += text.starts_with("long");
  });
  raise(SIGUSR1);
  EXPECT_TRUE(comesTrue(loop, [&] { return handled == 3; }));
  letPass(machine, Seconds{0.005});
  EXPECT_EQ(handled, 3);
}

TEST_F(EventLoopAlone, CannotWaitForARegularFile) {
  const ScratchFolder folder;
  std::ofstream(folder.file("file")) << "text";
  const FileDescriptor file(open(folder.file("file").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(loop.onDescriptor(file.get(), EPOLLIN, [] {}), nullptr);
}

TEST_F(EventLoopAlone, CallsOnceAfterADelayCountedFromTheCall) {
  Seconds begin{};
  Seconds called{};
  int calls = 0;
  EventSource source;
  loop.mainQueue().async([&] {
    machine.keepBusy(Seconds{0.02});
    begin = machine.clock.awakeTime();
    source = loop.after(Seconds{0.01}, [&] {
      called = machine.clock.awakeTime();
      ++calls;
    });
  });
  EXPECT_TRUE(comesTrue(loop, [&] { return calls > 0; }));
  letPass(machine, Seconds{0.02});
  EXPECT_EQ(calls, 1);
  EXPECT_GE(called - begin, Seconds{0.00999});
}

TEST_F(EventLoopAlone, StopsRunningUntilSomethingWhenItIsTerminated) {
  bool late = false;
  const auto deadline = loop.after(patience, [&] { late = true; });
  loop.mainQueue().async([&] { loop.terminate(); });
  loop.runUntil([&] { return late; });
  EXPECT_FALSE(late);
  loop.runUntil([&] { return late; });
  EXPECT_FALSE(late);
}

pid_t startChild(const std::vector<std::string>& arguments) {
  pid_t pid = 0;
  EXPECT_EQ(spawn({.executable = TEST_CHILD, .arguments = arguments}, pid), 0);
  return pid;
}

TEST_F(EventLoopAlone, ReapsTheChildrenThatItWasGiven) {
  for (int each = 0; each < 20; ++each) loop.reap(startChild({"exit", std::to_string(each)}));
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(EventLoopAlone, ReapsAChildThatHasEndedAlready) {
  const pid_t child = startChild({"exit", "0"});
  siginfo_t state{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &state, WEXITED | WNOWAIT), 0);
  loop.reap(child);
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(EventLoopAlone, ReapsNoChildOfSomebodyElse) {
  const pid_t other = startChild({"exit", "7"});
  const pid_t own = startChild({"pause"});
  loop.reap(own);
  loop.signalChild(own, SIGKILL);
  EXPECT_TRUE(comesTrue(loop, [own] { return kill(own, 0) != 0; }));
  int status = 0;
  EXPECT_EQ(waitpid(other, &status, 0), other);
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(EventLoopAlone, SignalsOnlyChildrenThatItWasGiven) {
  const pid_t stranger = startChild({"pause"});
  const pid_t own = startChild({"pause"});
  loop.reap(own);
  loop.signalChild(stranger, SIGTERM);
  loop.signalChild(own, SIGTERM);
  EXPECT_TRUE(comesTrue(loop, [own] { return kill(own, 0) != 0; }));
  // Reaped: the number may be anybody's by now.
  loop.signalChild(own, SIGTERM);
  kill(stranger, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(stranger, &status, 0), stranger);
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(EventLoopAlone, ReapsLaterWhatItHasNoDescriptorToWatchBy) {
  const pid_t unwatched = startChild({"pause"});
  {
    const ResourceLimit none(RLIMIT_NOFILE, 0);
    loop.reap(unwatched);
  }
  loop.signalChild(unwatched, SIGKILL);
  siginfo_t state{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(unwatched), &state, WEXITED | WNOWAIT), 0);
  loop.reap(startChild({"exit", "0"}));
  EXPECT_TRUE(hasNoChildren(loop));
}

/// The clocks that the kernel's timers of this process run on.
std::set<int> timerClocks() {
  std::set<int> clocks;
  for (const auto& each : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream file(each.path());
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("clockid: ")) clocks.insert(std::stoi(line.substr(9)));
    }
  }
  return clocks;
}

TEST_F(EventLoopAlone, CountsTimeAsleepForTimers) {
  const auto timer = loop.scheduleRepeating(Seconds{60}, [] {});
  EXPECT_EQ(timerClocks(), std::set<int>{CLOCK_BOOTTIME});
}

TEST_F(EventLoopAlone, DoesNotCountTimeAsleepForDelayedJobs) {
  bool taken = false;
  loop.mainQueue().asyncAfter(Seconds{60}, [] {});
  loop.mainQueue().async([&] { taken = true; });
  loop.runUntil([&] { return taken; });
  const auto source = loop.after(Seconds{60}, [] {});
  EXPECT_EQ(timerClocks(), std::set<int>{CLOCK_MONOTONIC});
}

}  // namespace
}  // namespace kestrune::testing
