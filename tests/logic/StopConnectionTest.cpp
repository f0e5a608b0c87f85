#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

constexpr auto title = "手動關停連線";
constexpr auto stoppedRow = "🔴 連線狀態：已手動關停，背景服務已停止";

struct StopConnection : ControllerTest {
  StopConnection() { makeStatusItem(); }

  void stop() { choose("stopConnection"); }
};

TEST_F(StopConnection, AsksForNoConfirmationAndChangesNothingAtOnce) {
  controller->performAction("stopConnection");
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), CallLog{});
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
  EXPECT_TRUE(machine.userDefaults.values.empty());
}

TEST_F(StopConnection, RunsTheStopScriptOnTheWorker) {
  controller->performAction("stopConnection");
  machine.loop.runMain();
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
  EXPECT_EQ(machine.processes.launches.back().arguments,
            (std::vector<std::string>{"-lc", controller->backendServiceStopCommand()}));
  EXPECT_TRUE(machine.userDefaults.values.empty());
}

TEST_F(StopConnection, DoesTheRestInOrderOnTheMainThread) {
  controller->ensureSleepAssertion();
  controller->performAction("stopConnection");
  machine.loop.runOneWorkerJob();
  newCalls();
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), (CallLog{"release display assertion", "release system assertion",
                                 std::string("setMenu ") + stoppedRow, "setButton Kestrune · 異常 · 未同步",
                                 "present alert", std::string("show alert ") + title}));
}

TEST_F(StopConnection, SwitchesAutoConnectOffAndEndsAReconnectBeforeTheMenuIsBuilt) {
  state.reconnectInProgress = true;
  int seen = 0;
  machine.statusBar.whenMenuIsSet = [&] {
    ++seen;
    EXPECT_TRUE(isStored("autoConnectEnabled", false));
    EXPECT_FALSE(state.reconnectInProgress);
  };
  stop();
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(machine.statusBar.row(15).checked, false);
  EXPECT_EQ(machine.statusBar.row(18).title, "立即重新檢查連線");
}

TEST_F(StopConnection, MenuAlreadyShowsThatNothingIsSynchronisedOrHeld) {
  controller->ensureSleepAssertion();
  state.currentProjectTitle = "Kestrune";
  state.currentThreadName = "Tests";
  stop();
  EXPECT_EQ(state.currentProjectTitle, "未同步");
  EXPECT_EQ(state.currentThreadName, "尚未啟動");
  EXPECT_EQ(machine.statusBar.row(8).title, "同步專案：未同步");
  EXPECT_EQ(machine.statusBar.row(9).title, "同步會話：尚未啟動");
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已關閉");
  EXPECT_TRUE(machine.powerAssertions.held.empty());
}

TEST_F(StopConnection, LeavesTheCodexSummariesAndAnotherRefreshAlone) {
  state.codexVersionSummary = "Codex：OK 1";
  state.statusRefreshInProgress = true;
  stopAnswers({.output = "[FAIL] Codex CLI: gone"});
  stop();
  EXPECT_EQ(machine.statusBar.row(4).title, "Codex：OK 1");
  EXPECT_TRUE(state.statusRefreshInProgress);
}

TEST_F(StopConnection, AsksForNoStatus) {
  stop();
  machine.loop.advance(Seconds{10});
  EXPECT_EQ(machine.processes.launches.size(), 1U);
}

TEST_F(StopConnection, ShowsWhatTheScriptSaid) {
  struct Case {
    const char* output;
    const char* content;
  };
  const Case cases[] = {
      {"", "沒有輸出。\n\n已同步關閉自動連線。"},
      {"Boot-out failed: 3: No such process\n",
       "Boot-out failed: 3: No such process\n\n已同步關閉自動連線。"},
      {"[OK] a\n[FAIL] b", "🟢 a\n🔴 b\n\n已同步關閉自動連線。"},
  };
  for (const Case& each : cases) {
    stopAnswers({.output = each.output});
    stop();
    EXPECT_EQ(machine.alerts.shown.back(), informationWindow(title, each.content));
    machine.alerts.answer(0);
  }
}

TEST_F(StopConnection, SaysItInItsOwnWordsOnlyWhenNothingWasSaidAtAll) {
  machine.processes.launchError = "";
  stop();
  EXPECT_EQ(machine.alerts.shown,
            std::vector{informationWindow(title, "已停止本地服務、桌面橋接與反向隧道，並已關閉自動連線。")});
}

TEST_F(StopConnection, WindowIsNeverAnError) {
  stopAnswers({.status = 1, .output = "[FAIL] x"});
  stop();
  EXPECT_EQ(machine.alerts.shown.back(), informationWindow(title, "🔴 x\n\n已同步關閉自動連線。"));
  machine.alerts.answer(0);
  machine.processes.launchError = "Cannot allocate memory";
  stop();
  EXPECT_EQ(machine.alerts.shown.back(),
            informationWindow(title, "Cannot allocate memory\n\n已同步關閉自動連線。"));
}

TEST_F(StopConnection, GivesTheScriptEightSeconds) {
  stopAnswers({.runtime = Seconds{7.9}, .output = "x"});
  stop();
  EXPECT_EQ(machine.alerts.shown.back(), informationWindow(title, "x\n\n已同步關閉自動連線。"));
  machine.alerts.answer(0);
  stopAnswers({.runtime = Seconds{60}, .output = "x"});
  controller->performAction("stopConnection");
  EXPECT_NEAR(timeOfWorkerJob().count(), 8.2, 0.051);
  machine.loop.settle();
  EXPECT_EQ(machine.alerts.shown.back(),
            informationWindow(title, "x\n命令逾時，已停止等待。\n\n已同步關閉自動連線。"));
}

TEST_F(StopConnection, ThatFailedSwitchesAutoConnectOffAllTheSame) {
  controller->ensureSleepAssertion();
  stopAnswers({.runtime = Seconds{60}});
  stop();
  EXPECT_TRUE(isStored("autoConnectEnabled", false));
  EXPECT_EQ(statusRow(), stoppedRow);
  EXPECT_TRUE(machine.powerAssertions.held.empty());
}

TEST_F(StopConnection, ChosenTwiceRunsTwiceAndShowsOneWindowAfterTheOther) {
  controller->performAction("stopConnection");
  stop();
  EXPECT_EQ(stops(), 2U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  machine.alerts.answer(0);
  machine.loop.runMain();
  EXPECT_EQ(machine.alerts.shown.size(), 2U);
}

TEST_F(StopConnection, KeepsTheControllerAliveUntilItIsDone) {
  const std::weak_ptr<AppDelegate> weak = controller;
  controller->performAction("stopConnection");
  controller.reset();
  machine.loop.runOneWorkerJob();
  EXPECT_FALSE(weak.expired());
  machine.loop.settle();
  EXPECT_EQ(statusRow(), stoppedRow);
  EXPECT_TRUE(weak.expired());
}

TEST_F(StopConnection, QueuedBehindACommandThatHangsTakesEffectWhenTheWorkerComesToIt) {
  backendAnswers({.runtime = Seconds{60}});
  controller->ensureSleepAssertion();
  controller->refreshStatus(false);
  controller->performAction("stopConnection");
  EXPECT_NEAR(timeOfWorkerJob().count(), 12.2, 0.051);
  machine.loop.runMain();
  EXPECT_EQ(statusRow(), "🟡 連線狀態：命令逾時，已停止等待。");
  EXPECT_EQ(stops(), 0U);
  EXPECT_TRUE(controller->isAutoConnectEnabled());
  EXPECT_EQ(machine.statusBar.row(18).title, "手動停止連線");
  machine.loop.settle();
  EXPECT_EQ(stops(), 1U);
  EXPECT_EQ(statusRow(), stoppedRow);
  EXPECT_FALSE(controller->isAutoConnectEnabled());
}

TEST_F(StopConnection, RefreshThatEndsLaterRedrawsTheOldLampUntilTheNextTick) {
  controller->startPeriodicRefresh();
  controller->performAction("stopConnection");
  controller->refreshStatus(false);
  machine.loop.runOneWorkerJob();
  machine.loop.runMain();
  EXPECT_EQ(statusRow(), stoppedRow);
  machine.loop.settle();
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
  EXPECT_EQ(machine.statusBar.button().toolTip, "Kestrune · 已連線 · 未配置");
  EXPECT_EQ(machine.statusBar.row(18).title, "立即重新檢查連線");
  EXPECT_TRUE(machine.powerAssertions.held.empty());
  machine.loop.advance(Seconds{20.1});
  EXPECT_EQ(statusRow(), "🟡 連線狀態：已停用，不會啟動背景服務");
}

TEST_F(StopConnection, DuringAReconnectDoesNotKeepItFromItsFinalRefresh) {
  controller->reconnectServices(false);
  controller->performAction("stopConnection");
  machine.loop.settle();
  EXPECT_FALSE(state.reconnectInProgress);
  EXPECT_EQ(statusRow(), stoppedRow);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
  EXPECT_FALSE(controller->isAutoConnectEnabled());
}

}  // namespace
}  // namespace kestrune::testing
