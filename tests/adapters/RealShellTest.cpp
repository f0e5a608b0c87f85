#include "adapters/loop/EventLoop.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/AppDelegateState.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ScopedVariable.h"

namespace kestrune::testing {
namespace {

/// A test fixture with a controller that runs shell commands in the real bash. Only the clock and the child
/// processes are real; the rest of the platform is fake.
struct RealShell : ::testing::Test, RealChildren {
  // Set HOME to a temporary folder, so that bash does not read the profile of the user who runs the tests.
  const ScopedVariable home{"HOME", folder.file(".")};
  SystemClock clock;
  FakePlatform fakes;
  Platform platform = platformWith(fakes, {.clock = &clock, .processes = &processes});
  std::shared_ptr<AppDelegate> controller = std::make_shared<AppDelegate>(platform);

  CommandResult run(const std::string& commandLine, Seconds timeout = Seconds{60}) {
    return controller->runShellCommand(commandLine, timeout);
  }

  static CommandResult success(const std::string& output) { return {true, output}; }
  static CommandResult failure(const std::string& output) { return {false, output}; }
};

TEST_F(RealShell, StopsTheProcessGroupAtTheTimeLimit) {
  constexpr Seconds limit{0.2};
  CommandResult result;
  const std::string line = TEST_CHILD " pause & exec " TEST_CHILD " pause";
  const Seconds duration = durationOf([&] { result = run(line, limit); });
  EXPECT_EQ(result, failure("命令逾時，已停止等待。"));
  EXPECT_GE(duration, limit);
  EXPECT_LT(duration, patience);
  EXPECT_TRUE(groupEnds(anyGroup));
}

TEST_F(RealShell, RunsTheLegacyClientWhenTheCurrentOneFails) {
  fs::create_directories(folder.file(".venv/bin"));
  put(folder.file(".venv/bin/activate"), "PATH='" + folder.file(".venv/bin") + "':$PATH\n");
  put(folder.file(".venv/bin/kestrune-mac-client"),
      "#!/bin/sh\necho \"current: $*\"; echo 'current: no' >&2; exit 3\n", 0755);
  put(folder.file(".venv/bin/halvask-mac-client"),
      "#!/bin/sh\necho \"legacy: $*\"; exit \"$LEGACY_STATUS\"\n", 0755);
  fakes.mainBundle.environment["KESTRUNE_REPO_PATH"] = folder.file(".");
  const std::string line = std::make_shared<AppDelegate>(platform)->backendCommandLine("status");
  const std::string both = "current: status\nlegacy: status\ncurrent: no";
  EXPECT_EQ(run("LEGACY_STATUS=0; export LEGACY_STATUS; " + line), success(both));
  EXPECT_EQ(run("LEGACY_STATUS=4; export LEGACY_STATUS; " + line), failure(both));
}

}  // namespace
}  // namespace kestrune::testing
