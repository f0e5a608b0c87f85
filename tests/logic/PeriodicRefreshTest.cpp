#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct PeriodicRefresh : WithStatusItem {
  PeriodicRefresh() { controller->startPeriodicRefresh(); }
};

TEST_F(PeriodicRefresh, TicksEveryTwentySecondsAndShowsTheNewStateWithoutANotification) {
  EXPECT_EQ(newCalls(), CallLog{"scheduleRepeating 20.000000"});
  machine.loop.advance(Seconds{19.9});
  EXPECT_EQ(statusQueries(), 0U);
  machine.loop.advance(Seconds{0.2});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), connectedRow);
  backendAnswers({.output = "[FAIL] tunnel: down"});
  machine.loop.advance(Seconds{19.8});
  EXPECT_EQ(statusQueries(), 1U);
  machine.loop.advance(Seconds{0.2});
  EXPECT_EQ(statusQueries(), 2U);
  EXPECT_EQ(statusRow(), "🔴 連線狀態：異常");
  EXPECT_TRUE(machine.notifications.posted.empty());
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

TEST_F(PeriodicRefresh, TickDuringAReconnectOrARefreshDoesNothing) {
  newCalls();
  state.reconnectInProgress = true;
  for (const bool autoConnect : {false, true}) {
    setAutoConnect(autoConnect);
    machine.loop.advance(Seconds{20});
    EXPECT_EQ(newCalls(), CallLog{});
    EXPECT_TRUE(state.reconnectInProgress);
  }
  state.reconnectInProgress = false;
  state.statusRefreshInProgress = true;
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(newCalls(), CallLog{});
  state.statusRefreshInProgress = false;
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(statusQueries(), 1U);
}

TEST_F(PeriodicRefresh, TickWithAutoConnectOffShowsTheDisabledStateAndRunsNothing) {
  machine.loop.advance(Seconds{20.1});
  setAutoConnect(false);
  newCalls();
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(newCalls(),
            (CallLog{"release display assertion", "release system assertion",
                     std::string("setMenu ") + disabledRow, "setButton Kestrune · 檢查中 · 未同步"}));
  setAutoConnect(true);
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(statusQueries(), 2U);
  EXPECT_EQ(statusRow(), connectedRow);
}

TEST_F(PeriodicRefresh, TimerDoesNotKeepTheControllerAliveAndItsTickThenDoesNothing) {
  const std::weak_ptr<AppDelegate> weak = controller;
  const auto timer = std::move(state.refreshTimer);
  controller.reset();
  EXPECT_TRUE(weak.expired());
  newCalls();
  ASSERT_EQ(machine.loop.liveTimers(), 1U);
  machine.loop.advance(Seconds{41});
  EXPECT_EQ(newCalls(), CallLog{});
}

}  // namespace
}  // namespace kestrune::testing
