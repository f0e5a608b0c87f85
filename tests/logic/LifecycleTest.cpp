#include <algorithm>
#include <tuple>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Lifecycle : ControllerTest {
  /// The calls that the client makes when it starts, before it refreshes its status for the first time.
  const CallLog start{"setActivationPolicy 1",
                      "requestAuthorization 6",
                      "addToStatusBar",
                      "setButton Kestrune · 檢查中 · 目前專案",
                      "setMenu 🟡 連線狀態：正在檢查狀態…",
                      "start path monitor",
                      "scheduleRepeating 20.000000"};

  bool stopScriptWasLast() const {
    const auto& launches = machine.processes.launches;
    return !launches.empty() && launches.back().arguments ==
                                    std::vector<std::string>{"-lc", controller->backendServiceStopCommand()};
  }
};

TEST_F(Lifecycle, ConstructorCreatesTheQueues) {
  FakePlatform other;
  const AppDelegate another(other.platform);
  EXPECT_EQ(other.log,
            (CallLog{"makeSerialQueue kestrune.menu.monitor", "makeSerialQueue kestrune.menu.worker"}));
  const auto& [monitor, worker] = std::tie(other.loop.madeQueues.at(0), other.loop.madeQueues.at(1));
  EXPECT_EQ(monitor.qualityOfService, QualityOfService::standard);
  EXPECT_EQ(monitor.target, QueueTarget::mainThread);
  EXPECT_EQ(worker.qualityOfService, QualityOfService::userInitiated);
  EXPECT_EQ(worker.target, QueueTarget::ownThread);
}

TEST_F(Lifecycle, StartsInOrder) {
  machine.loop.run(*controller);
  CallLog calls = newCalls();
  calls.resize(start.size());
  EXPECT_EQ(calls, start);
  EXPECT_EQ(machine.pathMonitor.queue, state.monitorQueue.get());
  EXPECT_EQ(machine.statusItem.length, -2);
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_TRUE(machine.notifications.posted.empty());
  EXPECT_TRUE(stopScriptWasLast());
}

TEST_F(Lifecycle, StartWithAutoConnectOffRunsNoCommand) {
  setAutoConnect(false);
  controller->applicationDidFinishLaunching();
  const CallLog drawing{std::string("setMenu ") + disabledRow, "setButton Kestrune · 檢查中 · 未同步"};
  CallLog expected = start;
  expected.insert(expected.end(), drawing.begin(), drawing.end());
  EXPECT_EQ(newCalls(), expected);
  for (int tick = 0; tick < 3; ++tick) {
    machine.loop.advance(Seconds{20});
    EXPECT_EQ(newCalls(), drawing);
  }
}

TEST_F(Lifecycle, StartWithoutAnApplicationAborts) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  machine.platform.application = nullptr;
  EXPECT_DEATH(controller->applicationDidFinishLaunching(), "fatal error: there is no application object");
}

TEST_F(Lifecycle, StopsInOrder) {
  startUp();
  controller->applicationWillTerminate();
  EXPECT_EQ(newCalls(), (CallLog{"cancel path monitor", "invalidate timer", "release display assertion",
                                 "release system assertion", "close kestrune.menu.worker",
                                 "reserve processes", "launch /bin/bash"}));
  EXPECT_EQ(machine.loop.liveTimers(), 0U);
  EXPECT_TRUE(stopScriptWasLast());
}

TEST_F(Lifecycle, StopWaitsForTheScriptUpToItsLimit) {
  for (const auto& [runtime, spent] : {std::pair{3.01, 3.05}, {3600.0, 8.2}}) {
    machine.processes.scripts = {{"launchctl", {.runtime = Seconds{runtime}, .ignoresTerminate = true}}};
    const Seconds begin = machine.clock.awakeTime();
    controller->applicationWillTerminate();
    EXPECT_NEAR((machine.clock.awakeTime() - begin).count(), spent, 0.051);
  }
  const CallLog calls = newCalls();
  EXPECT_EQ(CallLog(calls.end() - 3, calls.end()),
            (CallLog{"terminate child", "interrupt child", "terminate group"}));
}

TEST_F(Lifecycle, StopKillsARunningRefreshBeforeTheScript) {
  startUp();
  bool quitting = false;
  Seconds spent{-1};
  backendAnswers({.runtime = Seconds{11}, .whileRunning = [&] {
                    if (std::exchange(quitting, true)) return;
                    const Seconds begin = machine.clock.awakeTime();
                    controller->performAction("quit");
                    controller->applicationWillTerminate();
                    spent = machine.clock.awakeTime() - begin;
                  }});
  refresh();
  EXPECT_EQ(spent, Seconds{0});
  EXPECT_TRUE(stopScriptWasLast());
  EXPECT_TRUE(machine.powerAssertions.held.empty());
  const CallLog calls = newCalls();
  const auto end = std::find(calls.begin(), calls.end(), "reserve processes");
  ASSERT_NE(end, calls.end());
  EXPECT_EQ(std::count(calls.begin(), end, "launch /bin/bash"), 1);
  EXPECT_EQ(std::count(end, calls.end(), "launch /bin/bash"), 1);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "terminate child"), 0);
}

}  // namespace
}  // namespace kestrune::testing
