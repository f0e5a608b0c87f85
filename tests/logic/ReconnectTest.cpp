#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

constexpr auto reconnectingRow = "🟡 連線狀態：正在重新連線…";
constexpr auto connectedRow = "🟢 連線狀態：已連線";

struct Reconnect : ControllerTest {
  Reconnect() { makeStatusItem(); }

  /// A whole reconnect, to the end of its final refresh.
  void reconnect(bool showWindow, const std::optional<std::string>& extraContent = std::nullopt) {
    controller->reconnectServices(showWindow, "刷新連線", extraContent);
    machine.loop.settle();
    machine.loop.advance(Seconds{1.25});
  }
};

TEST_F(Reconnect, IsOnlyQueuedAtFirstEvenWhenAskedForOnTheMainThread) {
  controller->reconnectServices(false);
  EXPECT_EQ(newCalls(), CallLog{});
  EXPECT_FALSE(state.reconnectInProgress);
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
}

TEST_F(Reconnect, MarksItselfTakesTheAssertionsAndShowsItOnTheMainQueue) {
  controller->reconnectServices(false);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(),
            (CallLog{"create display assertion", "create system assertion",
                     std::string("setMenu ") + reconnectingRow, "setButton Kestrune · 檢查中 · 目前專案"}));
  EXPECT_TRUE(state.reconnectInProgress);
  EXPECT_TRUE(machine.processes.launches.empty());
}

TEST_F(Reconnect, MenuAlreadyShowsThatItIsUnderWay) {
  controller->reconnectServices(false);
  machine.loop.runMain();
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已開啟");
  EXPECT_EQ(machine.statusBar.row(18).title, "正在重新檢查並恢復連線…");
  EXPECT_FALSE(machine.statusBar.row(18).enabled);
}

TEST_F(Reconnect, BringsTheAssertionsInLineWithThePreferences) {
  struct Case {
    bool autoConnect;
    bool keepAwake;
  };
  for (const Case& each : {Case{true, true}, Case{true, false}, Case{false, true}, Case{false, false}}) {
    controller->ensureSleepAssertion();
    setAutoConnect(each.autoConnect);
    machine.userDefaults.setBool("keepAwakeEnabled", each.keepAwake);
    controller->reconnectServices(false);
    machine.loop.runMain();
    EXPECT_EQ(state.sleepAssertionActive, each.autoConnect && each.keepAwake);
  }
}

TEST_F(Reconnect, AsksTheBackendsClientToRefreshOnTheWorker) {
  controller->reconnectServices(false);
  machine.loop.runMain();
  newCalls();
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
  EXPECT_EQ(machine.processes.launches.back().arguments,
            (std::vector<std::string>{
                "-lc",
                "cd '/home/u/backend' && source .venv/bin/activate && "
                "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client refresh || "
                "halvask-mac-client refresh; }"}));
}

TEST_F(Reconnect, CommandDoesNotWaitForTheMainThread) {
  controller->reconnectServices(false);
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(reconnects(), 1U);
  EXPECT_FALSE(state.reconnectInProgress);
}

TEST_F(Reconnect, GivesTheBackendTwelveSeconds) {
  refreshAnswers({.runtime = Seconds{11.9}, .output = "x"});
  controller->reconnectServices(true);
  EXPECT_NEAR(timeOfWorkerJob().count(), 11.9, 0.051);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(machine.alerts.shown.back(), informationWindow("刷新連線", "x"));
  machine.alerts.answer(0);
  refreshAnswers({.runtime = Seconds{60}, .output = "x"});
  controller->reconnectServices(true);
  EXPECT_NEAR(timeOfWorkerJob().count(), 12.2, 0.051);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(machine.alerts.shown.back(), errorWindow("刷新連線", "x\n命令逾時，已停止等待。"));
}

TEST_F(Reconnect, LetsTheServicesSettleBeforeItAsksForTheirStatus) {
  refreshAnswers({.runtime = Seconds{3}});
  controller->reconnectServices(true);
  machine.loop.settle();
  machine.loop.advance(Seconds{1.19});
  EXPECT_EQ(statusQueries(), 0U);
  EXPECT_TRUE(machine.alerts.shown.empty());
  EXPECT_EQ(statusRow(), reconnectingRow);
  machine.loop.advance(Seconds{0.02});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_EQ(statusRow(), connectedRow);
}

TEST_F(Reconnect, SettlingBeginsWhenTheMainThreadHasTheAnswer) {
  controller->reconnectServices(false);
  machine.loop.runOneWorkerJob();
  machine.clock.sleep(Seconds{5});
  machine.loop.settle();
  machine.loop.advance(Seconds{1.19});
  EXPECT_EQ(statusQueries(), 0U);
  machine.loop.advance(Seconds{0.02});
  EXPECT_EQ(statusQueries(), 1U);
}

TEST_F(Reconnect, IsOverWhenItsFinalRefreshIs) {
  controller->reconnectServices(false);
  machine.loop.settle();
  bool seen = false;
  backendAnswers({.runtime = Seconds{1}, .whileRunning = [&] {
                    seen = true;
                    EXPECT_TRUE(state.reconnectInProgress);
                  }});
  machine.loop.advance(Seconds{1.25});
  EXPECT_TRUE(seen);
  EXPECT_FALSE(state.reconnectInProgress);
  EXPECT_EQ(machine.statusBar.row(18).title, "手動停止連線");
}

TEST_F(Reconnect, WithoutAWindowShowsNoneWhateverComesOfIt) {
  for (const int status : {0, 1}) {
    refreshAnswers({.status = status, .output = "x"});
    reconnect(false, "more");
    EXPECT_TRUE(machine.alerts.shown.empty());
  }
}

TEST_F(Reconnect, WindowShowsWhatTheBackendSaidAndThenTheExtraContent) {
  struct Case {
    std::optional<std::string> extraContent;
    const char* content;
  };
  const Case cases[] = {
      {std::nullopt, "🟢 a\n🔴 b"},   {"", "🟢 a\n🔴 b"},
      {"more", "🟢 a\n🔴 b\n\nmore"}, {"[OK] as it is", "🟢 a\n🔴 b\n\n[OK] as it is"},
      {" ", "🟢 a\n🔴 b\n\n "},
  };
  refreshAnswers({.output = "[OK] a\n[FAIL] b"});
  for (const Case& each : cases) {
    reconnect(true, each.extraContent);
    EXPECT_EQ(machine.alerts.shown.back(), informationWindow("刷新連線", each.content));
    machine.alerts.answer(0);
  }
}

TEST_F(Reconnect, WindowHasTheTitleThatItIsGivenOrItsOwn) {
  controller->reconnectServices(true);
  controller->reconnectServices(true, "設定已保存");
  controller->reconnectServices(true, "");
  machine.loop.settle();
  machine.loop.advance(Seconds{1.25});
  machine.alerts.answer(0);
  machine.loop.runMain();
  machine.alerts.answer(0);
  machine.loop.runMain();
  EXPECT_EQ(machine.alerts.shown, (std::vector{informationWindow("刷新連線", "沒有輸出。"),
                                               informationWindow("設定已保存", "沒有輸出。"),
                                               informationWindow("", "沒有輸出。")}));
}

TEST_F(Reconnect, WindowIsAnErrorWhenTheBackendFailed) {
  refreshAnswers({.status = 1, .output = "[OK] a"});
  reconnect(true, "more");
  EXPECT_EQ(machine.alerts.shown.back(), errorWindow("刷新連線", "🟢 a\n\nmore"));
  machine.alerts.answer(0);
  machine.processes.launchError = "Cannot allocate memory";
  reconnect(true);
  EXPECT_EQ(machine.alerts.shown.back(), errorWindow("刷新連線", "Cannot allocate memory"));
}

TEST_F(Reconnect, WindowOfASuccessIsNoErrorWhateverWasSaidOrTheStatusIs) {
  backendAnswers({.status = 1, .output = "[FAIL] tunnel: down"});
  refreshAnswers({.output = "[FAIL] a 無回應"});
  reconnect(true);
  EXPECT_EQ(machine.alerts.shown.back(), informationWindow("刷新連線", "🔴 a 無回應"));
}

TEST_F(Reconnect, WindowIsAskedForOnceTheFinalRefreshHasBegun) {
  int asked = 0;
  machine.alerts.whenAsked = [&] {
    ++asked;
    EXPECT_TRUE(state.statusRefreshInProgress);
    EXPECT_EQ(statusQueries(), 0U);
  };
  reconnect(true);
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(statusQueries(), 1U);
}

TEST_F(Reconnect, FailureIsNotTriedAgainAndTheStatusDecidesTheLamp) {
  refreshAnswers({.status = 1, .output = "[FAIL] x"});
  reconnect(false);
  machine.loop.advance(Seconds{100});
  EXPECT_EQ(reconnects(), 1U);
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), connectedRow);
}

TEST_F(Reconnect, LeavesTheSummariesToTheStatus) {
  refreshAnswers({.output = "[OK] Codex CLI: 1"});
  controller->reconnectServices(false);
  machine.loop.settle();
  EXPECT_EQ(state.codexVersionSummary, "Codex：尚未檢查");
}

TEST_F(Reconnect, FinalRefreshPostsNoNotification) {
  reconnect(true);
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(Reconnect, FinalRefreshDoesNotLookAtAutoConnect) {
  controller->reconnectServices(false);
  machine.loop.settle();
  setAutoConnect(false);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), connectedRow);
  EXPECT_TRUE(machine.powerAssertions.held.empty());
}

TEST_F(Reconnect, WithAutoConnectOffRunsAllTheSame) {
  setAutoConnect(false);
  reconnect(true);
  EXPECT_EQ(reconnects(), 1U);
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_FALSE(controller->isAutoConnectEnabled());
}

TEST_F(Reconnect, FinalRefreshIsDroppedDuringAnotherButTheWindowIsShown) {
  controller->reconnectServices(true);
  machine.loop.settle();
  state.statusRefreshInProgress = true;
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusQueries(), 0U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_TRUE(state.reconnectInProgress);
}

TEST_F(Reconnect, IsMarkedAsOverByAStatusThatWasAskedForEarlier) {
  bool commandRan = false;
  refreshAnswers({.runtime = Seconds{1}, .whileRunning = [&] {
                    commandRan = true;
                    EXPECT_FALSE(state.reconnectInProgress);
                    EXPECT_EQ(statusRow(), connectedRow);
                  }});
  controller->refreshStatus(false);
  controller->reconnectServices(false);
  machine.loop.runMain();
  EXPECT_TRUE(state.reconnectInProgress);
  machine.loop.settle();
  EXPECT_TRUE(commandRan);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusQueries(), 2U);
}

TEST_F(Reconnect, TicksDoNothingUntilItIsOver) {
  controller->startPeriodicRefresh();
  machine.loop.advance(Seconds{19.5});
  controller->reconnectServices(false);
  machine.loop.settle();
  machine.loop.advance(Seconds{1});
  EXPECT_EQ(statusQueries(), 0U);
  machine.loop.advance(Seconds{0.25});
  EXPECT_EQ(statusQueries(), 1U);
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(statusQueries(), 2U);
}

TEST_F(Reconnect, TwoRunTheirCommandsOneAfterTheOther) {
  refreshAnswers({.runtime = Seconds{2}});
  controller->reconnectServices(false);
  controller->reconnectServices(false);
  machine.loop.runMain();
  EXPECT_EQ(machine.loop.workerJobs(), 2U);
  EXPECT_EQ(machine.statusBar.menus.size(), 3U);
  machine.loop.settle();
  ASSERT_EQ(reconnects(), 2U);
  const auto& launches = machine.processes.launches;
  EXPECT_NEAR((launches[1].at - launches[0].at).count(), 2, 0.051);
}

TEST_F(Reconnect, TwoEachHaveTheirWindowAndTheirFinalRefresh) {
  refreshAnswers({.runtime = Seconds{2}});
  controller->reconnectServices(true, "a");
  controller->reconnectServices(true, "b");
  machine.loop.settle();
  machine.loop.advance(Seconds{5});
  EXPECT_EQ(statusQueries(), 2U);
  machine.alerts.answer(0);
  machine.loop.runMain();
  EXPECT_EQ(machine.alerts.shown,
            (std::vector{informationWindow("a", "沒有輸出。"), informationWindow("b", "沒有輸出。")}));
  EXPECT_FALSE(state.reconnectInProgress);
}

TEST_F(Reconnect, KeepsTheControllerAliveUntilItIsDone) {
  const std::weak_ptr<AppDelegate> weak = controller;
  controller->reconnectServices(true);
  controller.reset();
  machine.loop.settle();
  EXPECT_FALSE(weak.expired());
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusRow(), connectedRow);
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace kestrune::testing
