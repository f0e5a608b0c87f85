#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct PeriodicRefresh : ControllerTest {
  PeriodicRefresh() {
    makeStatusItem();
    controller->startPeriodicRefresh();
  }
};

TEST_F(PeriodicRefresh, TicksEveryTwentySecondsAndFirstAfterTwenty) {
  EXPECT_EQ(newCalls(), CallLog{"scheduleRepeating 20.000000"});
  machine.loop.advance(Seconds{19.9});
  EXPECT_EQ(statusQueries(), 0U);
  machine.loop.advance(Seconds{0.2});
  EXPECT_EQ(statusQueries(), 1U);
  machine.loop.advance(Seconds{19.8});
  EXPECT_EQ(statusQueries(), 1U);
  machine.loop.advance(Seconds{0.2});
  EXPECT_EQ(statusQueries(), 2U);
}

TEST_F(PeriodicRefresh, StartDoesNotTickByItself) {
  machine.loop.settle();
  EXPECT_EQ(statusQueries(), 0U);
}

TEST_F(PeriodicRefresh, StartedAgainReplacesItsTimer) {
  newCalls();
  machine.loop.advance(Seconds{15});
  controller->startPeriodicRefresh();
  EXPECT_EQ(newCalls(), (CallLog{"invalidate timer", "scheduleRepeating 20.000000"}));
  EXPECT_EQ(machine.loop.liveTimers(), 1U);
  machine.loop.advance(Seconds{19.9});
  EXPECT_EQ(statusQueries(), 0U);
  machine.loop.advance(Seconds{0.2});
  EXPECT_EQ(statusQueries(), 1U);
}

TEST_F(PeriodicRefresh, TickPostsNoNotification) {
  machine.loop.advance(Seconds{20.1});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(PeriodicRefresh, TickShowsTheNewState) {
  machine.loop.advance(Seconds{20.1});
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
  backendAnswers({.output = "[FAIL] tunnel: down"});
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(statusRow(), "🔴 連線狀態：異常");
}

TEST_F(PeriodicRefresh, TickDuringAReconnectDoesNothing) {
  for (const bool autoConnect : {true, false}) {
    setAutoConnect(autoConnect);
    state.reconnectInProgress = true;
    newCalls();
    machine.loop.advance(Seconds{20.1});
    EXPECT_EQ(newCalls(), CallLog{});
    EXPECT_TRUE(state.reconnectInProgress);
  }
}

TEST_F(PeriodicRefresh, TicksGoOnAfterTheReconnect) {
  state.reconnectInProgress = true;
  machine.loop.advance(Seconds{20.1});
  state.reconnectInProgress = false;
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(statusQueries(), 1U);
}

TEST_F(PeriodicRefresh, TickDuringARefreshIsDropped) {
  state.statusRefreshInProgress = true;
  newCalls();
  machine.loop.advance(Seconds{20.1});
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(PeriodicRefresh, TickWithAutoConnectOffShowsTheDisabledStateAndRunsNothing) {
  setAutoConnect(false);
  newCalls();
  machine.loop.advance(Seconds{20.1});
  EXPECT_EQ(newCalls(), (CallLog{"setMenu 🟡 連線狀態：已停用，不會啟動背景服務",
                                 "setButton Kestrune · 檢查中 · 未同步"}));
  EXPECT_TRUE(machine.processes.launches.empty());
}

TEST_F(PeriodicRefresh, PreferenceIsReadWithEveryTick) {
  setAutoConnect(false);
  machine.loop.advance(Seconds{20.1});
  setAutoConnect(true);
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
  setAutoConnect(false);
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), "🟡 連線狀態：已停用，不會啟動背景服務");
}

TEST_F(PeriodicRefresh, TickReleasesTheAssertionsOnceAutoConnectIsOff) {
  machine.loop.advance(Seconds{20.1});
  ASSERT_EQ(machine.powerAssertions.held.size(), 2U);
  setAutoConnect(false);
  machine.loop.advance(Seconds{20});
  EXPECT_TRUE(machine.powerAssertions.held.empty());
}

TEST_F(PeriodicRefresh, TimerDoesNotKeepTheControllerAlive) {
  const std::weak_ptr<AppDelegate> weak = controller;
  const auto timer = std::move(state.refreshTimer);
  controller.reset();
  EXPECT_TRUE(weak.expired());
}

TEST_F(PeriodicRefresh, TickAfterTheControllerIsGoneDoesNothing) {
  const auto timer = std::move(state.refreshTimer);
  controller.reset();
  newCalls();
  ASSERT_EQ(machine.loop.liveTimers(), 1U);
  machine.loop.advance(Seconds{41});
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(PeriodicRefresh, WakingFromALongSleepIsOneTick) {
  machine.loop.suspend(Seconds{3600});
  EXPECT_EQ(statusQueries(), 1U);
  machine.loop.advance(Seconds{19.9});
  EXPECT_EQ(statusQueries(), 1U);
  machine.loop.advance(Seconds{0.2});
  EXPECT_EQ(statusQueries(), 2U);
}

TEST_F(PeriodicRefresh, BackendThatAlwaysHangsIsAskedAgainWithEveryTick) {
  backendAnswers({.runtime = Seconds{3600}, .ignoresTerminate = true, .ignoresInterrupt = true});
  for (std::size_t tick = 1; tick <= 3; ++tick) {
    machine.loop.advance(Seconds{20});
    machine.loop.settle();
    EXPECT_EQ(statusRow(), "🟡 連線狀態：命令逾時，已停止等待。");
  }
  EXPECT_EQ(statusQueries(), 3U);
}

}  // namespace
}  // namespace kestrune::testing
