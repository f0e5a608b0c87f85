#include <algorithm>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Lifecycle : ControllerTest {
  /// The start-up up to the first refresh, which is the same whatever the preferences say.
  const CallLog start{"setActivationPolicy 1",
                      "requestAuthorization 6",
                      "statusItem",
                      "setButton Kestrune · 檢查中 · 目前專案",
                      "setMenu 🟡 連線狀態：正在檢查狀態…",
                      "start path monitor on kestrune.menu.monitor",
                      "scheduleRepeating 20.000000"};

  bool stopScriptWasLast() const {
    const auto& launches = machine.processes.launches;
    return !launches.empty() && launches.back().arguments ==
                                    std::vector<std::string>{"-lc", controller->backendServiceStopCommand()};
  }
};

TEST_F(Lifecycle, StartsInOrderAndThenAsksForARefresh) {
  controller->applicationDidFinishLaunching();
  EXPECT_EQ(newCalls(), start);
  EXPECT_TRUE(state.statusRefreshInProgress);
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
}

TEST_F(Lifecycle, StartsInOrderAndThenShowsThatAutoConnectIsOff) {
  setAutoConnect(false);
  controller->applicationDidFinishLaunching();
  CallLog expected = start;
  expected.insert(expected.end(), {"setMenu 🟡 連線狀態：已停用，不會啟動背景服務",
                                   "setButton Kestrune · 檢查中 · 未同步"});
  EXPECT_EQ(newCalls(), expected);
}

TEST_F(Lifecycle, FirstRefreshPostsNoNotification) {
  startUp();
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(Lifecycle, StartWithoutAnApplicationObjectStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  machine.platform.application = nullptr;
  EXPECT_DEATH(controller->applicationDidFinishLaunching(), "fatal error: there is no application object");
}

TEST_F(Lifecycle, WithAutoConnectOffNoCommandRunsAtStartNorWithAnyTick) {
  setAutoConnect(false);
  startUp();
  EXPECT_EQ(statusRow(), "🟡 連線狀態：已停用，不會啟動背景服務");
  for (int tick = 0; tick < 3; ++tick) {
    const auto menus = machine.statusBar.menus.size();
    machine.loop.advance(Seconds{20});
    EXPECT_EQ(machine.statusBar.menus.size(), menus + 1);
    EXPECT_EQ(statusRow(), "🟡 連線狀態：已停用，不會啟動背景服務");
  }
  EXPECT_TRUE(machine.processes.launches.empty());
}

TEST_F(Lifecycle, StopsInOrder) {
  startUp();
  controller->applicationWillTerminate();
  EXPECT_EQ(newCalls(), (CallLog{"cancel path monitor", "invalidate timer", "release display assertion",
                                 "release system assertion", "close kestrune.menu.worker",
                                 "reserve processes", "launch /bin/bash"}));
  EXPECT_TRUE(stopScriptWasLast());
}

TEST_F(Lifecycle, StopLeavesTheTimerFieldAsItIsButTheTimerDead) {
  startUp();
  controller->applicationWillTerminate();
  EXPECT_NE(state.refreshTimer, nullptr);
  EXPECT_EQ(machine.loop.liveTimers(), 0U);
}

TEST_F(Lifecycle, StopsAlsoWhenItNeverStarted) {
  controller->applicationWillTerminate();
  EXPECT_EQ(newCalls(), (CallLog{"cancel path monitor", "close kestrune.menu.worker", "reserve processes",
                                 "launch /bin/bash"}));
  EXPECT_TRUE(stopScriptWasLast());
}

TEST_F(Lifecycle, StopWaitsForTheStopScriptButNoLongerThanItsLimit) {
  startUp();
  machine.processes.scripts = {
      {"launchctl", {.runtime = Seconds{3.01}}},
  };
  const Seconds begin = machine.clock.awakeTime();
  controller->applicationWillTerminate();
  EXPECT_NEAR((machine.clock.awakeTime() - begin).count(), 3.05, 1e-6);
}

TEST_F(Lifecycle, StopGivesUpOnAStopScriptThatHangs) {
  startUp();
  machine.processes.scripts = {{"launchctl", {.runtime = Seconds{3600}, .ignoresTerminate = true}}};
  const Seconds begin = machine.clock.awakeTime();
  controller->applicationWillTerminate();
  EXPECT_NEAR((machine.clock.awakeTime() - begin).count(), 8.2, 0.051);
  const CallLog calls = newCalls();
  EXPECT_EQ(CallLog(calls.end() - 3, calls.end()),
            (CallLog{"terminate child", "interrupt child", "terminate group"}));
}

TEST_F(Lifecycle, EveryQuitStopsTheBackendAndReleasesTheAssertions) {
  struct Case {
    const char* name;
    bool autoConnect;
    bool keepAwake;
    bool official;
    bool reconnecting;
  };
  const Case cases[] = {
      {"connected", true, true, false, false},       {"auto-connect off", false, true, false, false},
      {"keep-awake off", true, false, false, false}, {"official mode", true, true, true, false},
      {"everything off", false, false, true, false}, {"during a reconnect", true, true, false, true},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    FakePlatform other;
    const auto another = std::make_shared<AppDelegate>(other.platform);
    another->applicationDidFinishLaunching();
    other.loop.settle();
    AppDelegateState{* another}.reconnectInProgress = each.reconnecting;
    // Held from before the user changed any preference.
    another->ensureSleepAssertion();
    another->setAutoConnectEnabled(each.autoConnect);
    another->setKeepAwakeEnabled(each.keepAwake);
    another->setOfficialConnectionMode(each.official);
    another->applicationWillTerminate();
    EXPECT_TRUE(other.powerAssertions.held.empty());
    EXPECT_EQ(other.processes.launchesOf("launchctl bootout"), 1U);
    EXPECT_EQ(other.processes.launches.back().arguments.back(), another->backendServiceStopCommand());
  }
}

TEST_F(Lifecycle, StopDropsARefreshThatHasNotBegun) {
  startUp();
  const auto before = statusQueries();
  controller->refreshStatus(false);
  controller->applicationWillTerminate();
  machine.loop.settle();
  EXPECT_EQ(statusQueries(), before);
  EXPECT_TRUE(stopScriptWasLast());
}

TEST_F(Lifecycle, StopDoesNotWaitForARefreshInFlight) {
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
}

TEST_F(Lifecycle, StopEndsTheChildOfARefreshInFlightBeforeTheStopScriptBegins) {
  startUp();
  bool quitting = false;
  backendAnswers({.runtime = Seconds{11}, .whileRunning = [&] {
                    if (!std::exchange(quitting, true)) controller->applicationWillTerminate();
                  }});
  newCalls();
  refresh();
  const CallLog calls = newCalls();
  const auto end = std::find(calls.begin(), calls.end(), "reserve processes");
  ASSERT_NE(end, calls.end());
  EXPECT_EQ(std::count(calls.begin(), end, "launch /bin/bash"), 1);
  EXPECT_EQ(std::count(end, calls.end(), "launch /bin/bash"), 1);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "terminate child"), 0);
}

TEST_F(Lifecycle, RunTellsTheControllerOfStartAndEnd) {
  EXPECT_EQ(machine.loop.run(*controller), 0);
  const CallLog calls = newCalls();
  ASSERT_GT(calls.size(), start.size());
  EXPECT_EQ(CallLog(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(start.size())), start);
  EXPECT_TRUE(stopScriptWasLast());
}

}  // namespace
}  // namespace kestrune::testing
