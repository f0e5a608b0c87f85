#include <cstring>
#include <future>
#include <thread>

#include "adapters/children/ChildProcesses.h"
#include "adapters/files/Files.h"
#include "adapters/files/PreferencesFile.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/windows/DialogProcess.h"
#include "tests/adapters/AwakeDesk.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/StandInDialogs.h"
#include "tests/rig/TrayDesk.h"

// Tests in which the kernel refuses new processes, threads or descriptors for a while (EAGAIN, EMFILE).

namespace kestrune::testing {
namespace {

// --- processes and threads

constexpr auto anyProgram = "/bin/true";

/// While this object exists, this process can start no process and no thread (RLIMIT_NPROC). The limit does
/// not apply to root. So a root process becomes another user here and cannot become root again: use this only
/// in a ForkedProgram.
class NoMoreProcesses {
 public:
  NoMoreProcesses() {
    constexpr uid_t nobody = 65534;
    // In a user namespace that maps only one user, this call fails. Ignore the failure: the limit applies to
    // the root user of such a namespace.
    if (geteuid() == 0) static_cast<void>(!setresuid(nobody, nobody, nobody));
    limit.emplace(RLIMIT_NPROC, 0);
    if (const pid_t child = vfork(); child == 0) {
      _exit(0);
    } else if (child > 0) {
      throw std::runtime_error("RLIMIT_NPROC does not keep this process from starting others");
    }
  }

 private:
  std::optional<ResourceLimit> limit;
};

TEST(ProcessShortage, QueueWithoutAThreadEndsTheProcess) {
  ForkedProgram program([](const ForkedProgram::Say& say) {
    EventLoop loop;
    const NoMoreProcesses shortage;
    loop.makeSerialQueue("worker", QualityOfService::userInitiated, QueueTarget::ownThread);
    say("still here");
  });
  EXPECT_EQ(program.line(), "end");
  EXPECT_EQ(program.standardError(),
            "KestruneMenuClient: cannot start a thread for commands: Resource temporarily unavailable\n");
}

/// Returns the state of a thread of this process: 'S' while it sleeps, '?' if there is no such thread.
char stateOfThread(pid_t thread) {
  const std::string text = contentsOf("/proc/self/task/" + std::to_string(thread) + "/stat");
  const auto name = text.rfind(") ");
  return name == std::string::npos ? '?' : text[name + 2];
}

TEST(ProcessShortage, QueueWaitsUntilAThreadCanBeStarted) {
  ForkedProgram program([](const ForkedProgram::Say& say) {
    EventLoop loop;
    std::unique_ptr<NoMoreProcesses> shortage;
    std::promise<void> begun, ran;
    std::thread helper([&, starting = gettid()] {
      begun.get_future().wait();
      while (stateOfThread(starting) != 'S') sched_yield();
      shortage.reset();
    });
    shortage = std::make_unique<NoMoreProcesses>();
    begun.set_value();
    const auto queue =
        loop.makeSerialQueue("worker", QualityOfService::userInitiated, QueueTarget::ownThread);
    queue->async([&ran] { ran.set_value(); });
    ran.get_future().wait();
    say("ran");
    helper.join();
  });
  EXPECT_EQ(program.line(), "ran");
}

TEST(ProcessShortage, LaunchFailsWithEAGAINAndWorksLater) {
  ForkedProgram program([](const ForkedProgram::Say& say) {
    ChildProcesses processes;
    auto shortage = std::make_unique<NoMoreProcesses>();
    for (int i = 0; i < 3; ++i) say(processes.launch(anyProgram, {}).reason());
    shortage.reset();
    const auto launched = processes.launch(anyProgram, {});
    if (!launched) return say(launched.reason());
    (*launched)->readOutput(patience);
    say("started");
  });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(program.line(), std::strerror(EAGAIN));
  EXPECT_EQ(program.line(), "started");
}

TEST(ProcessShortage, ReservedLaunchRetriesUntilAProcessIsFree) {
  ForkedProgram program([](const ForkedProgram::Say& say) {
    ChildProcesses processes;
    std::unique_ptr<NoMoreProcesses> shortage;
    std::promise<void> begun;
    std::thread somebodyElse([&, stopping = gettid()] {
      begun.get_future().wait();
      while (stateOfThread(stopping) != 'S') sched_yield();
      shortage.reset();
    });
    shortage = std::make_unique<NoMoreProcesses>();
    processes.reserveForThisThread();
    begun.set_value();
    const auto launched = processes.launch(anyProgram, {});
    if (launched) (*launched)->readOutput(patience);
    say(launched ? "stopped" : launched.reason());
    somebodyElse.join();
  });
  EXPECT_EQ(program.line(), "stopped");
}

TEST(ProcessShortage, ReservedLaunchGivesUpSoon) {
  ForkedProgram program([](const ForkedProgram::Say& say) {
    ChildProcesses processes;
    const NoMoreProcesses shortage;
    processes.reserveForThisThread();
    std::string error;
    const Seconds took = durationOf([&] { error = processes.launch(anyProgram, {}).reason(); });
    say(error);
    say(took < Seconds{3.0} ? "soon" : "late");
  });
  EXPECT_EQ(program.line(), std::strerror(EAGAIN));
  EXPECT_EQ(program.line(), "soon");
}

// --- descriptors

/// Returns the RLIMIT_NOFILE that leaves `left` descriptors free. Opens `left` + 1 descriptors to find it,
/// because the numbers of the open descriptors may have gaps.
rlim_t limitWith(int left) {
  std::vector<FileDescriptor> taken;
  for (int i = 0; i <= left; ++i) taken.emplace_back(dup(STDERR_FILENO));
  return static_cast<rlim_t>(taken.back().get());
}

struct DescriptorShortage : FileTest {
  SignalState restored;

  /// Runs `work` with no free descriptor, then with one, and so on, until `work` succeeds. No attempt may
  /// leave a descriptor open. Returns the number of descriptors that `work` needs.
  static int neededFor(const std::function<bool()>& work) {
    constexpr int far = 20;
    const std::ptrdiff_t before = openDescriptors();
    for (int left = 0; left < far; ++left) {
      bool done = false;
      {
        const ResourceLimit limit(RLIMIT_NOFILE, limitWith(left));
        done = work();
      }
      EXPECT_EQ(openDescriptors(), before) << "with " << left << " left";
      if (done) return left;
    }
    return far;
  }
};

TEST_F(DescriptorShortage, LaunchLeaksNoDescriptor) {
  RealChildren children;
  EXPECT_EQ(neededFor([&] {
              const auto launched = children.processes.launch(TEST_CHILD, {"out", "here"});
              if (!launched) {
                EXPECT_EQ(launched.reason(), std::strerror(EMFILE));
                return false;
              }
              EXPECT_EQ((*launched)->readOutput(patience), "here");
              return children.ends(**launched);
            }),
            4);
}

TEST_F(DescriptorShortage, ReservedLaunchHasSpareDescriptors) {
  RealChildren children;
  ChildProcesses& processes = children.processes;
  // Without a free descriptor, a launch fails. reserveForThisThread closes the spare descriptors of
  // `processes`, so that the next launch can open its pipes.
  const ResourceLimit limit(RLIMIT_NOFILE, limitWith(0));
  EXPECT_EQ(processes.launch(TEST_CHILD, {}).reason(), std::strerror(EMFILE));
  processes.reserveForThisThread();
  const auto launched = processes.launch(TEST_CHILD, {"out", "stopped"});
  ASSERT_TRUE(launched) << launched.reason();
  EXPECT_EQ((*launched)->readOutput(patience), "stopped");
  EXPECT_TRUE(children.ends(**launched));
}

TEST_F(DescriptorShortage, OpeningAWindowLeaksNoDescriptor) {
  EventLoop loop;
  CallLog log;
  FakeNotifications notifications{log};
  DialogProgram program{loop, anyProgram, true, notifications};
  const auto open = [&] {
    bool ended = false;
    DialogProcess window(program, {}, [&ended] { ended = true; });
    window.show(dialogs::Raise{}, 0);
    return !ended && comesTrue(loop, [&ended] { return ended; });
  };
  // The first window makes the loop open descriptors that stay open. They must not be counted below.
  ASSERT_TRUE(open());
  ASSERT_TRUE(hasNoChildren(loop));
  EXPECT_EQ(neededFor(open), 4);
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(DescriptorShortage, EnvFileStaysAsItIs) {
  const std::string path = folder.file(".env");
  put(path, "TOKEN=all there is\n");
  SystemFileManager files(folder.file(""));
  const std::string shortage = std::strerror(EMFILE);
  EXPECT_EQ(neededFor([&] {
              const FileContents found = files.contents(path);
              if (found.outcome == ReadOutcome::read) return bool(files.writeAtomically(path, "TOKEN=new\n"));
              EXPECT_EQ(found.outcome, ReadOutcome::temporaryFailure);
              EXPECT_EQ(found.problem, shortage);
              EXPECT_EQ(files.writeAtomically(path, "TOKEN=new\n"), Failure{shortage});
              EXPECT_EQ(files.replaceUnreadable(path, "TOKEN=new\n"), Failure{shortage});
              return false;
            }),
            1);
  EXPECT_EQ(contentsOf(path), "TOKEN=new\n");
  EXPECT_EQ(names(), Names{".env"});
}

TEST_F(DescriptorShortage, PreferencesLoseNoKey) {
  const std::string path = folder.file("preferences.json");
  put(path, R"({"theirs": 1, "flag": true})");
  SystemFileManager files(folder.file(""));
  PreferencesFile preferences(files, path);
  EXPECT_EQ(neededFor([&] {
              preferences.setBool("flag", false);
              EXPECT_EQ(preferences.boolForKey("flag"), false);
              return contentsOf(path).find("false") != std::string::npos;
            }),
            1);
  EXPECT_NE(contentsOf(path).find("theirs"), std::string::npos);
  EXPECT_EQ(names(), Names{"preferences.json"});
}

// --- descriptors for D-Bus

struct BusDescriptorShortage : TrayDesk {
  SignalState restored;
};

TEST_F(BusDescriptorShortage, TrayItemAppearsAfterTheShortage) {
  host.reset();
  daemon.stop();
  daemon.start();
  {
    const ResourceLimit limit(RLIMIT_NOFILE, limitWith(0));
    ASSERT_TRUE(comesTrue(loop, [this] { return probe.losses == 1; }));
    settleQueue(loop);
    EXPECT_EQ(probe.connections, 1);
    EXPECT_EQ(probe.bus, nullptr);
  }
  ASSERT_TRUE(comesTrue(loop, [this] { return probe.connections == 2; }));
  showTray();
  EXPECT_TRUE(host->hasItem());
}

TEST_F(AwakeDesk, InhibitorIsTakenAfterTheShortage) {
  startBuses();
  std::optional<ResourceLimit> limit;
  BusMessage answer;
  login = serve(loginName, [&](sd_bus_message* call) {
    // `answer` keeps the reply and its descriptor, so that sending the reply frees no descriptor.
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(call, &reply);
    answer.reset(reply);
    sd_bus_message_append(reply, "h", STDERR_FILENO);
    limit.emplace(RLIMIT_NOFILE, limitWith(0));
    sd_bus_send(nullptr, reply, nullptr);
    return true;
  });
  connect();
  EXPECT_LT(durationOf([this] { EXPECT_FALSE(createUnanswered(system)); }), soon);
  ASSERT_TRUE(limit);
  limit.reset();
  login->behave(locks.grants());
  clock.sleep(Seconds{60});
  ASSERT_TRUE(comesAbout([this] { return systemTrip.connections == 2; }));
  ASSERT_TRUE(knowsAll());
  EXPECT_TRUE(create(system));
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 1; }));
}

}  // namespace
}  // namespace kestrune::testing
