#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using RefreshCycle = WithStatusItem;

TEST_F(RefreshCycle, RunsTheQueryOnTheWorkerAndShowsItOnTheMainThread) {
  controller->refreshStatus(true);
  EXPECT_TRUE(state.statusRefreshInProgress);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), CallLog{});
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
  EXPECT_EQ(machine.processes.launches.back().arguments,
            (std::vector<std::string>{"-lc", controller->backendCommandLine("status")}));
  EXPECT_TRUE(state.statusRefreshInProgress);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), (CallLog{"create display assertion", "create system assertion",
                                 std::string("setMenu ") + connectedRow,
                                 "setButton Kestrune · 已連線 · 未配置", "notify Kestrune 網路已變更"}));
  EXPECT_FALSE(state.statusRefreshInProgress);
  ASSERT_EQ(machine.notifications.posted.size(), 1U);
  EXPECT_EQ(machine.notifications.posted[0].body, "偵測到網路切換，已重新檢查本地服務與隧道狀態。");
}

TEST_F(RefreshCycle, RequestDuringAnotherIsDropped) {
  controller->refreshStatus(false);
  controller->refreshStatus(true);
  backendAnswers({.runtime = Seconds{1}, .whileRunning = [&] { controller->refreshStatus(true); }});
  machine.loop.runOneWorkerJob();
  controller->refreshStatus(true);
  machine.loop.settle();
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.statusItem.menus.size(), 2U);
  EXPECT_TRUE(machine.notifications.posted.empty());
  controller->refreshStatus(true);
  controller->refreshStatus(false);
  machine.loop.settle();
  EXPECT_EQ(machine.notifications.posted.size(), 1U) << "that of the one under way stays";
}

TEST_F(RefreshCycle, ShowsTheLampOrTheFirstLineOfAFailure) {
  const std::tuple<int, const char*, const char*> cases[] = {
      {0, "everything is fine", "🟢 連線狀態：已連線"},
      {0, "\xff\xfe", "🟢 連線狀態：已連線"},
      {0, "[FAIL] tunnel: down", "🔴 連線狀態：異常"},
      {1, "bash: cd: No such file\nmore", "🟡 連線狀態：bash: cd: No such file"},
      {1, "[OK] Mac service: running\n[FAIL] tunnel: down", "🔴 連線狀態：[OK] Mac service: running"},
      {1, "\n\n  first\nsecond", "🟡 連線狀態：first"},
      {1, "", "🟡 連線狀態：沒有輸出。"},
      {1, "a\r\nb", "🟡 連線狀態：a"},
      {1, "a\u2028b", "🟡 連線狀態：a"},
      {1, "a\tb \nc", "🟡 連線狀態：a\tb "},
  };
  for (const auto& [status, output, shown] : cases) {
    backendAnswers({.status = status, .output = output});
    refresh();
    EXPECT_EQ(statusRow(), shown) << output;
  }
  EXPECT_EQ(reconnects(), 0U);
}

TEST_F(RefreshCycle, ShowsTheErrorOfAShellThatCannotStart) {
  for (const auto& [error, shown] : {std::pair{"Cannot allocate memory", "Cannot allocate memory"},
                                     {"\nmore", ""},
                                     {"\u2028more", ""},
                                     {"\n", ""},
                                     {"", "狀態未知"}}) {
    machine.processes.launchError = error;
    refresh();
    EXPECT_EQ(statusRow(), std::string("🟡 連線狀態：") + shown);
  }
  machine.processes.launchError.reset();
  refresh();
  EXPECT_EQ(statusRow(), connectedRow);
}

TEST_F(RefreshCycle, SuccessSyncsTheAssertions) {
  backendAnswers({.output = "[FAIL] tunnel: down"});
  refresh();
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
  EXPECT_EQ(title(11), "保持喚醒：已開啟");
  machine.userDefaults.setBool("keepAwakeEnabled", false);
  refresh();
  EXPECT_TRUE(machine.powerAssertions.held.empty());
  EXPECT_EQ(title(11), "保持喚醒：已關閉");
}

struct RefreshWithSession : RefreshCycle {
  RefreshWithSession() {
    env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret";
    machine.localService.answer =
        R"({"projects":[{"selected":true,"title":"Shop","thread_name":"Fix the checkout page for tablets"}]})";
  }

  /// Runs a refresh until the controller has handled the output of the backend's status command. Does not run
  /// the next job, which reads the session.
  void beginRefresh(bool triggerNotification = false) {
    controller->refreshStatus(triggerNotification);
    machine.loop.runOneWorkerJob();
    machine.loop.runMain();
  }
};

TEST_F(RefreshWithSession, FailureReleasesTheAssertions) {
  refresh();
  backendAnswers({.status = 1, .output = "x"});
  machine.loop.advance(Seconds{45});
  newCalls();
  refresh();
  EXPECT_EQ(newCalls(), (CallLog{"launch /bin/bash", "release display assertion", "release system assertion",
                                 "ask local service", "setMenu 🟡 連線狀態：x",
                                 "setButton Kestrune · 檢查中 · Shop"}));
  EXPECT_EQ(title(11), "保持喚醒：已關閉");
  backendAnswers({});
  refresh();
  EXPECT_EQ(title(11), "保持喚醒：已開啟");
}

TEST_F(RefreshWithSession, EndsWhenTheSessionIsKnown) {
  backendAnswers({.output = "[OK] Codex CLI: 0.46.0"});
  machine.localService.duration = Seconds{5};
  machine.localService.whileAsked = [this] { controller->refreshStatus(true); };
  state.reconnectInProgress = true;
  beginRefresh(true);
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U) << "which do not wait";
  const Seconds begin = machine.clock.awakeTime();
  for (int step = 0; step < 2; ++step) {
    EXPECT_TRUE(state.statusRefreshInProgress);
    EXPECT_TRUE(state.reconnectInProgress);
    EXPECT_EQ(statusRow(), "🟡 連線狀態：正在檢查狀態…");
    EXPECT_EQ(title(4), "Codex：尚未檢查");
    EXPECT_TRUE(machine.notifications.posted.empty());
    machine.loop.runOneWorkerJob();
  }
  EXPECT_EQ(machine.clock.awakeTime(), begin + Seconds{5});
  machine.loop.settle();
  EXPECT_FALSE(state.statusRefreshInProgress);
  EXPECT_EQ(statusRow(), connectedRow);
  EXPECT_EQ(title(4), "Codex：OK 0.46.0");
  EXPECT_EQ(title(18), "手動停止連線");
  EXPECT_EQ(machine.notifications.posted.size(), 1U);
  EXPECT_EQ(statusQueries(), 1U);
}

struct PeriodicRefresh : WithStatusItem {
  PeriodicRefresh() { controller->startPeriodicRefresh(); }
};

TEST_F(PeriodicRefresh, TicksEveryTwentySeconds) {
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

TEST_F(PeriodicRefresh, TickWithAutoConnectOffRunsNothing) {
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

TEST_F(PeriodicRefresh, TimerDoesNotKeepTheControllerAlive) {
  const std::weak_ptr<AppDelegate> weak = controller;
  const auto timer = std::move(state.refreshTimer);
  controller.reset();
  EXPECT_TRUE(weak.expired());
  newCalls();
  ASSERT_EQ(machine.loop.liveTimers(), 1U);
  machine.loop.advance(Seconds{41});
  EXPECT_EQ(newCalls(), CallLog{});
}

using DisabledState = WithStatusItem;

TEST_F(DisabledState, LeavesARunningCheckAndReconnectAlone) {
  for (const bool running : {true, false}) {
    state.statusRefreshInProgress = running;
    state.reconnectInProgress = running;
    controller->presentAutoConnectDisabledState();
    EXPECT_EQ(state.statusRefreshInProgress, running);
    EXPECT_EQ(title(18), running ? reconnectingCommand : "手動停止連線");
  }
}

}  // namespace
}  // namespace kestrune::testing
