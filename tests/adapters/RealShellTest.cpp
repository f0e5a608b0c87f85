#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "KestruneMenuClient/AppDelegate.h"
#include "adapters/loop/SystemClock.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ProcessEnd.h"
#include "tests/rig/ScopedVariable.h"

namespace kestrune {

inline void PrintTo(const CommandResult& result, std::ostream* stream) {
  *stream << (result.ok ? "ok \"" : "not ok \"") << result.output << "\"";
}

}  // namespace kestrune

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;

const std::string notice = "命令逾時，已停止等待。";
const std::string nothing = "沒有輸出。";
constexpr Seconds generous{20.0};
constexpr auto terminateSign = "15";
constexpr auto interruptSign = "02";

/// The machine's clock, except that any time limit has passed once a child has come to the milestone: so no
/// test depends on how fast a shell starts. The first look at it is for setting the limit, and a shell may be
/// faster than that.
class LeapingClock final : public Clock {
 public:
  explicit LeapingClock(const Milestone& givenMilestone) : milestone(givenMilestone) {}

  Seconds awakeTime() const override {
    if (!limitIsSet.exchange(true) || !milestone.isReached(Seconds{0})) return machine.awakeTime();
    if (!leapt) leapt = machine.awakeTime();
    return machine.awakeTime() + Seconds{3600};
  }
  Seconds continuousTime() const override { return machine.continuousTime(); }
  std::int64_t calendarTime() const override { return machine.calendarTime(); }
  void sleep(Seconds duration) override {
    machine.sleep(duration);
    if (leapt && afterGrace) afterGrace();
  }

  /// The next look is such a first one, if that is still to come.
  void expectLimit() { limitIsSet = milestone.isReached(Seconds{0}); }

  /// Called when the time is up and somebody has slept since.
  std::function<void()> afterGrace;

 private:
  SystemClock machine;
  const Milestone& milestone;
  mutable std::atomic<bool> limitIsSet = false;
  mutable std::optional<Seconds> leapt;
};

/// A real child, of which it is noted how long somebody was ready to wait for its output.
class WatchedChild final : public Process {
 public:
  WatchedChild(std::unique_ptr<Process> givenChild, std::atomic<Seconds>& givenPatience)
      : child(std::move(givenChild)), readPatience(givenPatience) {}

  bool isRunning() override { return child->isRunning(); }
  void terminate() override { child->terminate(); }
  void interrupt() override { child->interrupt(); }
  void terminateGroup() override { child->terminateGroup(); }
  int terminationStatus() const override { return child->terminationStatus(); }
  std::string readOutput(Seconds patience) override {
    readPatience = patience;
    return child->readOutput(patience);
  }

 private:
  const std::unique_ptr<Process> child;
  std::atomic<Seconds>& readPatience;
};

class WatchedChildren final : public Processes {
 public:
  explicit WatchedChildren(Processes& givenProcesses) : processes(givenProcesses) {}

  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments) override {
    auto result = processes.launch(executable, arguments);
    if (result) *result = std::make_unique<WatchedChild>(std::move(*result), readPatience);
    return result;
  }
  void reserveForThisThread() override { processes.reserveForThisThread(); }

  std::atomic<Seconds> readPatience = Seconds{-1};  ///< of the output that was read last

 private:
  Processes& processes;
};

/// The controller's commands, run by the real shell.
struct RealShell : ::testing::Test, RealChildren {
  const std::string child = TEST_CHILD;
  // Whatever the user's own profile does.
  const ScopedVariable home{"HOME", folder.file(".")};

  Milestone timeIsUp{folder.file("time-is-up")};
  /// Part of a command line: from here on it is too late.
  const std::string letTimePass = " : > " + timeIsUp.path + "; ";

  LeapingClock clock{timeIsUp};
  WatchedChildren watched{processes};
  FakePlatform fakes;
  Platform platform = platformWith(fakes, {.clock = &clock, .processes = &watched});
  std::shared_ptr<AppDelegate> controller = std::make_shared<AppDelegate>(platform);

  CommandResult run(const std::string& commandLine, Seconds timeout = Seconds{60}) {
    clock.expectLimit();
    return controller->runShellCommand(commandLine, timeout);
  }

  static CommandResult success(const std::string& output) { return {true, output}; }
  static CommandResult failure(const std::string& output) { return {false, output}; }
};

TEST_F(RealShell, SaysThatNothingWasPrinted) {
  EXPECT_EQ(run("true"), success(nothing));
  EXPECT_EQ(run("exit 1"), failure(nothing));
}

TEST_F(RealShell, PutsStandardOutputBeforeStandardErrorAndTrimsTheEnds) {
  EXPECT_EQ(run("echo b >&2; echo; echo a"), success("a\nb"));
}

TEST_F(RealShell, KeepsTheTextOfAFailure) {
  EXPECT_EQ(run("echo why; exit 3"), failure("why"));
}

TEST_F(RealShell, ReportsWhatTheShellComplainsAbout) {
  const CommandResult result = run("cd '/no/such/folder' && echo not reached");
  EXPECT_FALSE(result.ok);
  EXPECT_NE(result.output.find("/no/such/folder"), std::string::npos) << result.output;
  EXPECT_EQ(result.output.find("not reached"), std::string::npos) << result.output;
}

TEST_F(RealShell, TakesAnEndBySignalForAFailure) {
  EXPECT_EQ(run("echo said; kill -KILL $$"), failure("said"));
}

TEST_F(RealShell, GivesTheWholeTextToTheShellAsOneArgument) {
  EXPECT_EQ(run("printf '%s.' 'two  words' \"a\nb\" | tr . ,\necho \" $#\""), success("two  words,a\nb, 0"));
}

TEST_F(RealShell, ReadsTheProfileOfTheUser) {
  std::ofstream(folder.file(".bash_profile")) << "FROM_PROFILE='read at login'\n";
  EXPECT_EQ(run("echo \"$FROM_PROFILE\""), success("read at login"));
}

TEST_F(RealShell, KeepsAByteOfZero) {
  EXPECT_EQ(run(child + " bytes 610062"), success(std::string("a\0b", 3)));
}

TEST_F(RealShell, TakesWhatIsNotUtf8ForNothing) {
  EXPECT_EQ(run(child + " bytes 61ff62"), success(nothing));
  EXPECT_EQ(run(child + " bytes 61ff62;" + letTimePass + child + " pause"), failure(notice));
}

TEST_F(RealShell, ReportsWhyThereIsNoShell) {
  // No argument can be as long as that.
  EXPECT_EQ(run(std::string(std::size_t{1} << 20, '#')), failure("Argument list too long"));
}

TEST_F(RealShell, StopsACommandWhenItsTimeIsUp) {
  constexpr Seconds limit{0.2};
  CommandResult result;
  const Seconds duration = durationOf([&] { result = run(child + " pause", limit); });
  EXPECT_EQ(result, failure(notice));
  EXPECT_GE(duration, limit + Seconds{0.2});
  EXPECT_LT(duration, limit + generous);
}

TEST_F(RealShell, KeepsWhatWasPrintedBeforeTheTimeWasUp) {
  EXPECT_EQ(run("echo x; echo y >&2;" + letTimePass + child + " pause"), failure("x\ny\n" + notice));
}

TEST_F(RealShell, KeepsWhatIsPrintedInAnswerToTheSignal) {
  // However long the child takes for its answer.
  clock.afterGrace = [] {
    siginfo_t state{};
    EXPECT_EQ(waitid(P_ALL, 0, &state, WEXITED | WNOWAIT), 0);
  };
  EXPECT_EQ(run("exec " + child + " out x on-term ,bye touch " + timeIsUp.path + " pause"),
            failure("x,bye\n" + notice));
}

TEST_F(RealShell, GivesNoTimeToACommandWhenThereIsNone) {
  for (const Seconds limit : {Seconds{0}, Seconds{-1}}) {
    CommandResult result;
    EXPECT_LT(durationOf([&] { result = run(child + " pause", limit); }), generous);
    EXPECT_EQ(result, failure(notice));
  }
}

TEST_F(RealShell, StopsACommandThatWaitsForItsPipeToBeRead) {
  const CommandResult result =
      run("exec " + child + " flood 60000 touch " + timeIsUp.path + " flood 100000000");
  EXPECT_FALSE(result.ok);
  EXPECT_TRUE(result.output.starts_with(std::string(60000, 'x')));
  EXPECT_TRUE(result.output.ends_with("x\n" + notice));
  EXPECT_LT(result.output.size(), std::size_t{1} << 20);
}

TEST_F(RealShell, AsksToEndBeforeItInterrupts) {
  const std::string log = folder.file("signals");
  ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
  const FileDescriptor arrived(open(log.c_str(), O_RDWR | O_CLOEXEC));
  const CommandResult result = run("echo $$; exec " + child + " log-signals " + log + " touch " +
                                   timeIsUp.path + " pause pause pause pause");
  const Leftover stubborn(std::atoi(result.output.c_str()));
  std::string signals;
  pollfd waiting{arrived.get(), POLLIN, 0};
  while (signals.find(interruptSign) == std::string::npos && poll(&waiting, 1, 5000) == 1) {
    char sign = 0;
    ASSERT_EQ(read(arrived.get(), &sign, 1), 1);
    signals.push_back(sign);
  }
  EXPECT_TRUE(signals.starts_with(terminateSign)) << signals;
  EXPECT_TRUE(signals.ends_with(interruptSign)) << signals;
  // Nothing worse was sent.
  EXPECT_TRUE(stubborn.runs());
}

TEST_F(RealShell, DoesNotWaitForACommandThatIgnoresBothSignals) {
  CommandResult result;
  EXPECT_LT(durationOf([&] {
              result = run("trap '' TERM INT; echo $$;" + letTimePass + "exec " + child + " pause");
            }),
            generous);
  const Leftover stubborn(std::atoi(result.output.c_str()));
  EXPECT_EQ(result, failure(std::to_string(stubborn.pid) + "\n" + notice));
  ASSERT_TRUE(stubborn.runs());
  kill(stubborn.pid, SIGKILL);
  siginfo_t state{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(stubborn.pid), &state, WEXITED | WNOWAIT), 0);

  // It is found at the next command, whatever that is.
  EXPECT_EQ(run("true"), success(nothing));
  EXPECT_EQ(waitpid(stubborn.pid, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(RealShell, EndsWhatACommandLeftInItsGroupWhenItsTimeIsUp) {
  const CommandResult result = run(child + " pause & echo $!;" + letTimePass + "wait");
  EXPECT_TRUE(result.output.ends_with("\n" + notice));
  EXPECT_TRUE(kestrune::testing::ends(std::atoi(result.output.c_str())));
}

TEST_F(RealShell, SparesAServiceThatACommandStartedBeforeItsTimeWasUp) {
  const CommandResult result = run(child + " leave-session 60;" + letTimePass + child + " pause");
  const Leftover service(numberBehind(result.output, "left"));
  EXPECT_EQ(result, failure("left " + std::to_string(service.pid) + "\n" + notice));
  EXPECT_TRUE(service.runs());
}

TEST_F(RealShell, DoesNotWaitForADescendantThatKeepsThePipesOpenWhenTheTimeIsUp) {
  // The shell goes on when the descendant has left its group.
  const std::string gone = folder.file("gone");
  ASSERT_EQ(mkfifo(gone.c_str(), 0600), 0);
  CommandResult result;
  EXPECT_LT(durationOf([&] {
              result = run("setsid " + child + " touch " + gone + " pause & echo $!; : < " + gone + ";" +
                           letTimePass + child + " pause");
            }),
            generous);
  EXPECT_EQ(watched.readPatience.load(), Seconds{0});
  const Leftover descendant(std::atoi(result.output.c_str()));
  EXPECT_TRUE(descendant.runs());
  EXPECT_EQ(result, failure(std::to_string(descendant.pid) + "\n" + notice));
}

TEST_F(RealShell, WaitsASecondForDescendantsThatKeepThePipesOpenAfterTheEnd) {
  CommandResult failed;
  std::thread other([&] { failed = run(child + " pause & echo $!; exit 3"); });
  CommandResult succeeded;
  const Seconds duration = durationOf([&] { succeeded = run(child + " pause & echo $!; echo x >&2"); });
  other.join();
  const Leftover first(std::atoi(failed.output.c_str()));
  const Leftover second(std::atoi(succeeded.output.c_str()));
  EXPECT_TRUE(first.runs());
  EXPECT_TRUE(second.runs());
  EXPECT_EQ(failed, failure(std::to_string(first.pid)));
  EXPECT_EQ(succeeded, success(std::to_string(second.pid) + "\nx"));
  EXPECT_GE(duration, Seconds{1});
  EXPECT_LT(duration, generous);
}

TEST_F(RealShell, TakesAReportOf64KiBWholeWhateverAPipeHolds) {
  const std::string lines = "for ((i = 0; i < 655; ++i)); do printf '%099d\\n' $i; done";
  for (const std::string size : {"8192", "65536"}) {
    const CommandResult result = run(child + " narrow " + size + "; " + lines);
    EXPECT_TRUE(result.ok) << size;
    EXPECT_EQ(result.output.size(), 655U * 100 - 1) << size;
    EXPECT_TRUE(result.output.ends_with("00654")) << size;
  }
}

TEST_F(RealShell, TellsWhatBothClientsSayWhenTheCurrentOneFails) {
  fs::create_directories(folder.file(".venv/bin"));
  std::ofstream(folder.file(".venv/bin/activate")) << "PATH='" + folder.file(".venv/bin") + "':$PATH\n";
  const auto program = [this](const std::string& name, const std::string& text) {
    const std::string path = folder.file(".venv/bin/" + name);
    std::ofstream(path) << "#!/bin/sh\n" + text;
    fs::permissions(path, fs::perms::owner_all);
  };
  program("kestrune-mac-client", "echo \"current: $*\"; echo 'current: no' >&2; exit 3\n");
  program("halvask-mac-client", "echo \"legacy: $*\"; exit \"$LEGACY_STATUS\"\n");
  fakes.mainBundle.environment["KESTRUNE_REPO_PATH"] = folder.file(".");
  const std::string line = std::make_shared<AppDelegate>(platform)->backendCommandLine("status");
  const std::string both = "current: status\nlegacy: status\ncurrent: no";
  EXPECT_EQ(run("LEGACY_STATUS=0; export LEGACY_STATUS; " + line), success(both));
  EXPECT_EQ(run("LEGACY_STATUS=4; export LEGACY_STATUS; " + line), failure(both));
}

TEST_F(RealShell, RunsNothingForOtherThreadsOnceTheEndHasBegun) {
  processes.reserveForThisThread();
  CommandResult refused;
  std::thread([&] { refused = run("echo started"); }).join();
  EXPECT_EQ(refused, failure("Operation canceled"));
  EXPECT_EQ(run("echo started"), success("started"));
}

TEST_F(RealShell, LosesTheCommandUnderWayWhenTheEndBegins) {
  CommandResult result;
  const Milestone underWay(folder.file("under-way"));
  std::thread worker([&] { result = run("echo x; : > " + underWay.path + "; " + child + " pause"); });
  EXPECT_TRUE(underWay.isReached());
  processes.reserveForThisThread();
  EXPECT_LT(durationOf([&] { worker.join(); }), generous);
  EXPECT_EQ(result, failure("x"));
}

TEST_F(RealShell, RunsCommandsOfSeveralThreadsSideBySide) {
  // Each waits for the other.
  const std::string here = folder.file("here");
  const std::string there = folder.file("there");
  ASSERT_EQ(mkfifo(here.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(there.c_str(), 0600), 0);
  CommandResult first;
  std::thread other([&] { first = run("echo one > " + here + "; cat " + there); });
  const CommandResult second = run("cat " + here + "; echo two > " + there);
  other.join();
  EXPECT_EQ(first, success("two"));
  EXPECT_EQ(second, success("one"));
}

}  // namespace
}  // namespace kestrune::testing
