#include <algorithm>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct StopScript : ControllerTest {};

TEST_F(StopScript, UnloadsServicesThenEndsStraysThenFreesThePorts) {
  EXPECT_EQ(controller->backendServiceStopCommand(),
            "launchctl bootout gui/501/com.kestrune.mac-service || true\n"
            "launchctl bootout gui/501/com.kestrune.mac-tunnel || true\n"
            "launchctl bootout gui/501/com.kestrune.desktop-bridge || true\n"
            "launchctl bootout gui/501/com.halvask.mac-service || true\n"
            "launchctl bootout gui/501/com.halvask.mac-tunnel || true\n"
            "launchctl bootout gui/501/com.halvask.desktop-bridge || true\n"
            "pkill -f 'kestrune-mac-service' || true\n"
            "pkill -f 'kestrune-desktop-bridge' || true\n"
            "pkill -f 'halvask-mac-service' || true\n"
            "pkill -f 'halvask-desktop-bridge' || true\n"
            "pkill -f '127.0.0.1:18765:127.0.0.1:8765' || true\n"
            "lsof -ti tcp:8765 | xargs kill -9 2>/dev/null || true\n"
            "lsof -ti tcp:8766 | xargs kill -9 2>/dev/null || true");
}

TEST_F(StopScript, HasThirteenLinesAndTwelveNewlines) {
  const std::string script = controller->backendServiceStopCommand();
  EXPECT_EQ(std::count(script.begin(), script.end(), '\n'), 12);
  EXPECT_NE(script.front(), '\n');
  EXPECT_NE(script.back(), '\n');
}

TEST_F(StopScript, RunsWithALimitOfEightSeconds) {
  machine.processes.scripts = {{"launchctl", {.runtime = Seconds{7.9}}}};
  controller->stopBackendServicesSynchronously();
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});

  machine.processes.scripts = {{"launchctl", {.runtime = Seconds{60}}}};
  const Seconds begin = machine.clock.awakeTime();
  controller->stopBackendServicesSynchronously();
  EXPECT_NEAR((machine.clock.awakeTime() - begin).count(), 8.2, 0.051);
}

TEST_F(StopScript, RunsOnTheCallingThread) {
  controller->stopBackendServicesSynchronously();
  EXPECT_EQ(machine.loop.workerJobs(), 0U);
  ASSERT_EQ(machine.processes.launches.size(), 1U);
  EXPECT_EQ(machine.processes.launches[0].executable, "/bin/bash");
  EXPECT_EQ(machine.processes.launches[0].arguments,
            (std::vector<std::string>{"-lc", controller->backendServiceStopCommand()}));
}

TEST_F(StopScript, WhatItSaysAndHowItEndsChangesNothing) {
  startUp();
  const auto menus = machine.statusBar.menus.size();
  machine.processes.scripts = {{"launchctl", {.status = 1, .output = "[FAIL] Boot-out failed"}}};
  controller->stopBackendServicesSynchronously();
  machine.loop.settle();
  EXPECT_EQ(machine.statusBar.menus.size(), menus);
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
}

TEST_F(StopScript, WithNothingToStopTheScriptSucceeds) {
  EXPECT_EQ(controller->runShellCommand(controller->backendServiceStopCommand(), AppDelegate::stopTimeout),
            (CommandResult{true, "沒有輸出。"}));
  machine.processes.scripts = {{"launchctl", {.output = "Boot-out failed: 5: Input/output error\n"}}};
  EXPECT_EQ(controller->runShellCommand(controller->backendServiceStopCommand(), AppDelegate::stopTimeout),
            (CommandResult{true, "Boot-out failed: 5: Input/output error"}));
}

}  // namespace
}  // namespace kestrune::testing
