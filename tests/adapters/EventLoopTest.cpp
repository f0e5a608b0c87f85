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
#include "adapters/system/System.h"
#include "tests/adapters/Loops.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/StandInDialogs.h"

namespace kestrune::testing {
namespace {

/// An application that prints each of its steps on standard error.
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
};

/// Runs an application in a process of its own, which first ignores the signals `ignored`. `prepare` is
/// called before the application runs. Expects that the application prints `steps`, and that the process
/// exits with 0.
void expectSteps(const std::string& steps, const std::function<void(WholeRun&)>& prepare,
                 const std::vector<int>& ignored = {}) {
  const auto run = [&] {
    for (const int each : ignored) std::signal(each, SIG_IGN);
    WholeRun app;
    prepare(app);
    _exit(app.loop.run(app));
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "^" + steps + "$");
}

void signalThisProcess(int number) {
  kill(getpid(), number);
}

struct EndingSignal : ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Each, EndingSignal, ::testing::Values(SIGTERM, SIGINT, SIGHUP, SIGQUIT),
                         [](const auto& signal) { return std::string(sigabbrev_np(signal.param)); });

TEST_P(EndingSignal, EndsTheApplicationOnce) {
  expectSteps("launched, terminating, end", [](WholeRun& app) {
    app.onLaunch = [](WholeRun&) { signalThisProcess(GetParam()); };
    app.onTerminate = [](WholeRun&) {
      for (const int each : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) signalThisProcess(each);
    };
  });
}

TEST_P(EndingSignal, PreventsTheLaunch) {
  expectSteps("", [](WholeRun& app) {
    app.onLaunch = [](WholeRun&) {};
    signalThisProcess(GetParam());
    app.loop.runUntil([] { return false; });
  });
}

TEST(IgnoredSignals, StayIgnored) {
  // nohup(1) ignores SIGHUP. A shell without job control ignores SIGINT and SIGQUIT for a background job.
  static const std::vector<int> ignored{SIGHUP, SIGINT, SIGQUIT};
  const auto prepare = [](WholeRun& app) {
    app.onLaunch = [](WholeRun& self) {
      for (const int each : ignored) signalThisProcess(each);
      self.loop.mainQueue().asyncAfter(Seconds{0.01}, [] {
        WholeRun::say("still there, ");
        signalThisProcess(SIGTERM);
      });
    };
  };
  expectSteps("launched, still there, terminating, end", prepare, ignored);
}

TEST(UserSignals, AreIgnored) {
  expectSteps("launched, still there, terminating, end", [](WholeRun& app) {
    app.onLaunch = [](WholeRun& self) {
      for (const int each : {SIGUSR1, SIGUSR2}) signalThisProcess(each);
      WholeRun::say("still there, ");
      self.loop.terminate();
    };
  });
}

TEST(IgnoredChildSignal, LosesNoExitStatus) {
  const auto prepare = [](WholeRun& app) {
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
  };
  // Ignore SIGCHLD, as if the parent of this process had ignored it before exec. While SIGCHLD is ignored,
  // the kernel discards the exit status of each child.
  expectSteps("launched, success, terminating, end", prepare, {SIGCHLD});
}

TEST(EndOfTheApplication, OnTerminateRunsBeforeTheDelegateIsTold) {
  for (const bool isLaunched : {true, false}) {
    expectSteps(isLaunched ? "launched, closing, terminating, end" : "", [isLaunched](WholeRun& app) {
      app.loop.onTerminate([] { WholeRun::say("closing, "); });
      app.onLaunch = [](WholeRun& self) { self.loop.terminate(); };
      if (!isLaunched) app.loop.terminate();
    });
  }
}

struct EventLoopAlone : ::testing::Test {
  RealLoop machine;
  EventLoop& loop = machine.loop;
};

TEST_F(EventLoopAlone, SIGPIPEAndSIGXFSZBecomeErrors) {
  PipeEnds pipe;
  pipe.reading.reset();
  EXPECT_EQ(write(pipe.writing.get(), "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  const ScratchFolder folder;
  const FileDescriptor file(open(folder.file("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const ResourceLimit noRoom(RLIMIT_FSIZE, 0);
  EXPECT_EQ(write(file.get(), "x", 1), -1);
  EXPECT_EQ(errno, EFBIG);
}

TEST_F(EventLoopAlone, WorkerThreadsBlockSignals) {
  const auto worker = loop.makeSerialQueue("worker", QualityOfService::standard, QueueTarget::ownThread);
  std::promise<sigset_t> told;
  worker->async([&] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    told.set_value(mask);
  });
  const sigset_t mask = told.get_future().get();
  for (const int each : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD, SIGCONT, SIGWINCH}) {
    EXPECT_TRUE(sigismember(&mask, each)) << sigabbrev_np(each);
  }
}

TEST_F(EventLoopAlone, HandlerMayDestroyItsOwnSource) {
  const PipeEnds pipe;
  int handled = 0;
  EventSource writable;
  EventSource delayed;
  EventSource signalled;
  // Each handler owns a copy of this text. If the loop destroyed a handler that is still running, the handler
  // would read the text from freed memory. The address sanitizer reports such a read.
  const std::string text = "long enough to be no small string";
  const auto destroying = [&](EventSource& source) {
    return [&, text] {
      source.reset();
      handled += text.starts_with("long");
    };
  };
  writable = loop.onDescriptor(pipe.writing.get(), EPOLLOUT, destroying(writable));
  delayed = loop.after(Seconds{0.001}, destroying(delayed));
  signalled = loop.onSignal(SIGUSR1, destroying(signalled));
  raise(SIGUSR1);
  EXPECT_TRUE(comesTrue(loop, [&] { return handled == 3; }));
  letPass(machine, Seconds{0.005});
  EXPECT_EQ(handled, 3);
}

TEST_F(EventLoopAlone, TerminateEndsRunUntil) {
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

TEST_F(EventLoopAlone, ReapsGivenChildren) {
  for (int each = 0; each < 20; ++each) loop.reap(startChild({"exit", std::to_string(each)}));
  const pid_t ended = startChild({"exit", "0"});
  siginfo_t state{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(ended), &state, WEXITED | WNOWAIT), 0);
  loop.reap(ended);
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(EventLoopAlone, SignalsAndReapsOnlyGivenChildren) {
  const pid_t stranger = startChild({"pause"});
  const pid_t own = startChild({"pause"});
  loop.reap(own);
  loop.signalChild(stranger, SIGTERM);
  loop.signalChild(own, SIGTERM);
  EXPECT_TRUE(comesTrue(loop, [own] { return kill(own, 0) != 0; }));
  loop.signalChild(own, SIGTERM);  // must do nothing: `own` has been reaped, so its PID may be reused
  kill(stranger, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(stranger, &status, 0), stranger);
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

/// Returns the clocks that the timerfds of this process use.
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

TEST_F(EventLoopAlone, TimersCountSuspend) {
  const auto timer = loop.scheduleRepeating(Seconds{60}, [] {});
  EXPECT_EQ(timerClocks(), std::set<int>{CLOCK_BOOTTIME});
}

TEST_F(EventLoopAlone, DelayedJobsDoNotCountSuspend) {
  bool taken = false;
  loop.mainQueue().asyncAfter(Seconds{60}, [] {});
  loop.mainQueue().async([&] { taken = true; });
  loop.runUntil([&] { return taken; });
  const auto source = loop.after(Seconds{60}, [] {});
  EXPECT_EQ(timerClocks(), std::set<int>{CLOCK_MONOTONIC});
}

template <typename Loop>
struct ApplicationContract : ::testing::Test, ApplicationDelegate {
  Loop loop;
  CallLog events;
  std::function<void()> onLaunch = [] {};

  void applicationDidFinishLaunching() override {
    events.push_back("launched");
    onLaunch();
  }
  void applicationWillTerminate() override { events.push_back("terminating"); }

  Application& application() { return loop.loop; }
  MainQueue& queue() { return loop.loop.mainQueue(); }
  Job note(const std::string& event) {
    return [this, event] { events.push_back(event); };
  }
};

TYPED_TEST_SUITE(ApplicationContract, Loops);

TYPED_TEST(ApplicationContract, DelegateHearsOfStartAndEndOnce) {
  this->queue().async(this->note("posted before"));
  this->onLaunch = [&] {
    this->queue().async(this->note("posted at launch"));
    this->queue().async([&] { this->application().terminate(); });
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "posted before", "posted at launch", "terminating"}));
}

TYPED_TEST(ApplicationContract, TerminateDuringLaunchEndsAtOnce) {
  this->onLaunch = [&] {
    this->queue().async(this->note("job"));
    this->application().terminate();
    this->application().terminate();
    this->events.push_back("end of launch");
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "end of launch", "terminating"}));
}

TYPED_TEST(ApplicationContract, NoJobRunsAfterTerminate) {
  const auto monitor =
      this->loop.loop.makeSerialQueue("monitor", QualityOfService::standard, QueueTarget::mainThread);
  this->onLaunch = [&] {
    this->queue().async([&] {
      this->application().terminate();
      monitor->async(this->note("posted on another queue of the thread"));
      this->queue().async(this->note("posted after"));
      this->queue().asyncAfter(Seconds{0}, this->note("posted after, with a delay"));
      this->events.push_back("end of job");
    });
    this->queue().async(this->note("posted before"));
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "end of job", "terminating"}));
}

TYPED_TEST(ApplicationContract, NoTimerTicksAfterTerminate) {
  const auto timer = this->loop.loop.scheduleRepeating(Seconds{0.002}, this->note("tick"));
  this->onLaunch = [&] {
    this->queue().async([&] {
      this->loop.keepBusy(Seconds{0.005});
      this->application().terminate();
    });
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "terminating"}));
}

}  // namespace
}  // namespace kestrune::testing
