#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

/// Runs a shell line. A ChildScript describes how the fake shell behaves.
struct ShellRunner : ControllerTest {
  CommandResult run(ChildScript script, Seconds timeout = Seconds{1.98}) {
    machine.processes.scripts = {{"the line", std::move(script)}};
    const Seconds begin = machine.clock.awakeTime();
    CommandResult result = controller->runShellCommand("the line", timeout);
    elapsed = (machine.clock.awakeTime() - begin).count();
    return result;
  }

  double elapsed = -1;
  static constexpr double exact = 1e-6;
};

TEST_F(ShellRunner, ResultIsTheExitStatusAndTheTrimmedOutput) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "沒有輸出。"},       {" \n\t　", "沒有輸出。"},
      {"  a  b  ", "a  b"},     {"\r\n\ta\r\n\r\nb\v\f\n", "a\r\n\r\nb"},
      {"　\u00A0a\u2028", "a"}, {"\u0085\u2029a", "a"},
  };
  for (const auto& [output, shown] : cases) {
    for (const int status : {0, 1, 127, 143, 255, -1}) {
      EXPECT_EQ(run({.status = status, .output = output}), (CommandResult{status == 0, shown}));
      EXPECT_EQ(elapsed, 0);
    }
  }
}

TEST_F(ShellRunner, OutputThatIsNotUtf8IsDiscarded) {
  for (const char* bytes : {"\xff", "abc\x80", "\xe4\xb8", "a\xc3", "\xed\xa0\x80", "\xc0\xaf",
                            "\xf4\x90\x80\x80", "\xe4\xb8 b"}) {
    EXPECT_EQ(run({.output = bytes}), (CommandResult{true, "沒有輸出。"}));
    EXPECT_EQ(run({.status = 1, .output = bytes}), (CommandResult{false, "沒有輸出。"}));
    EXPECT_EQ(run({.runtime = Seconds{9}, .output = bytes}),
              (CommandResult{false, "命令逾時，已停止等待。"}));
  }
}

TEST_F(ShellRunner, PollsTwentyTimesASecond) {
  for (const auto& [runtime, seen] : {std::pair{0.01, 0.05}, {0.06, 0.10}, {1.23, 1.25}, {1.88, 1.9}}) {
    newCalls();
    machine.processes.readPatience.clear();
    EXPECT_EQ(run({.runtime = Seconds{runtime}, .output = "x"}), (CommandResult{true, "x"}));
    EXPECT_NEAR(elapsed, seen, exact);
    EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
    EXPECT_EQ(machine.processes.readPatience, std::vector<Seconds>{Seconds{1}});
  }
}

TEST_F(ShellRunner, TimeoutKeepsTheOutput) {
  const std::pair<const char*, const char*> cases[] = {{"", "命令逾時，已停止等待。"},
                                                       {" \n\t\n", "命令逾時，已停止等待。"},
                                                       {"x\n", "x\n命令逾時，已停止等待。"}};
  for (const auto& [output, shown] : cases) {
    machine.processes.readPatience.clear();
    EXPECT_EQ(run({.runtime = Seconds{60}, .output = output}), (CommandResult{false, shown}));
    EXPECT_NEAR(elapsed, 2.0 + 0.2, exact);
    EXPECT_EQ(machine.processes.readPatience, std::vector<Seconds>{Seconds{0}});
  }
}

TEST_F(ShellRunner, SendsSigintAfterAFifthOfASecond) {
  const CallLog asked{"launch /bin/bash", "terminate child", "terminate group"};
  const CallLog interrupted{"launch /bin/bash", "terminate child", "interrupt child", "terminate group"};
  run({.runtime = Seconds{60}});
  EXPECT_EQ(newCalls(), asked);
  run({.runtime = Seconds{60}, .reaction = Seconds{0.19}});
  EXPECT_EQ(newCalls(), asked);
  EXPECT_FALSE(run({.runtime = Seconds{2.1}, .status = 0, .ignoresTerminate = true}).ok);
  EXPECT_EQ(newCalls(), asked) << "it ended by itself, but too late";
  run({.runtime = Seconds{60}, .reaction = Seconds{0.21}});
  EXPECT_EQ(newCalls(), interrupted);
  run({.runtime = Seconds{60}, .ignoresTerminate = true});
  EXPECT_EQ(newCalls(), interrupted);
}

TEST_F(ShellRunner, ZeroTimeoutStopsARunningChild) {
  for (const double limit : {0.0, -0.5, -1e9}) {
    EXPECT_EQ(run({.runtime = Seconds{60}}, Seconds{limit}),
              (CommandResult{false, "命令逾時，已停止等待。"}));
    EXPECT_NEAR(elapsed, 0.2, exact);
    EXPECT_EQ(run({.output = "x"}, Seconds{limit}), (CommandResult{true, "x"})) << "it has ended already";
    EXPECT_EQ(elapsed, 0);
  }
}

TEST_F(ShellRunner, ChildThatEndsAfterTheLastPollIsInTime) {
  EXPECT_EQ(run({.runtime = Seconds{0.01},
                 .output = "x",
                 .whileRunning = [this] { machine.clock.sleep(Seconds{0.02}); }},
                Seconds{0}),
            (CommandResult{true, "x"}));
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
}

TEST(ShellEscape, MakesOneWordOfAnyText) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "''"},
      {"a", "'a'"},
      {"a'b", "'a'\"'\"'b'"},
      {"'", "''\"'\"''"},
      {"''", "''\"'\"''\"'\"''"},
      {"$(x) `y` \"z\" \\ \n *", "'$(x) `y` \"z\" \\ \n *'"},
      {"密碼", "'密碼'"},
  };
  for (const auto& [text, word] : cases) EXPECT_EQ(AppDelegate::shellEscape(text), word);
}

}  // namespace
}  // namespace kestrune::testing
