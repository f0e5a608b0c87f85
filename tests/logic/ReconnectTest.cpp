#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Reconnect : WithStatusItem {
  /// Reconnects, and waits until the refresh at the end of the reconnect is done.
  void reconnect(bool showWindow, const std::optional<std::string>& extraContent = std::nullopt) {
    controller->reconnectServices(showWindow, "刷新連線", extraContent);
    machine.loop.settle();
    machine.loop.advance(Seconds{1.25});
  }
};

TEST_F(Reconnect, GivesTheBackendTwelveSecondsAndSettlingTime) {
  refreshAnswers({.runtime = Seconds{11.9}, .output = "x"});
  controller->reconnectServices(true);
  EXPECT_NEAR(timeOfWorkerJob().count(), 11.9, 0.051);
  EXPECT_EQ(machine.processes.launches.back().arguments.back(), controller->backendCommandLine("refresh"));
  machine.clock.sleep(Seconds{5});
  machine.loop.settle();
  machine.loop.advance(Seconds{1.19});
  EXPECT_EQ(statusQueries(), 0U) << "counted from when the main thread has the answer";
  EXPECT_TRUE(machine.alerts.shown.empty());
  EXPECT_EQ(statusRow(), reconnectingRow);
  machine.loop.advance(Seconds{0.02});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), connectedRow);
  EXPECT_EQ(closeWindow(), informationWindow("刷新連線", "x"));
  refreshAnswers({.runtime = Seconds{60}, .output = "x"});
  controller->reconnectServices(true);
  EXPECT_NEAR(timeOfWorkerJob().count(), 12.2, 0.051);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(closeWindow(), errorWindow("刷新連線", "x\n命令逾時，已停止等待。"));
}

TEST_F(Reconnect, WindowShowsTheOutputAndTheExtraContent) {
  const std::pair<std::optional<std::string>, const char*> cases[] = {
      {std::nullopt, "🟢 a\n🔴 b"},
      {"", "🟢 a\n🔴 b"},
      {"[OK] as it is", "🟢 a\n🔴 b\n\n[OK] as it is"},
      {" ", "🟢 a\n🔴 b\n\n "},
  };
  refreshAnswers({.output = "[OK] a\n[FAIL] b"});
  backendAnswers({.status = 1, .output = "[FAIL] tunnel: down"});
  for (const auto& [extraContent, content] : cases) {
    reconnect(true, extraContent);
    EXPECT_EQ(closeWindow(), informationWindow("刷新連線", content));
    EXPECT_EQ(title(18), "手動停止連線") << "also after a status that failed";
  }
}

TEST_F(Reconnect, FailureIsShownAndNotRetried) {
  refreshAnswers({.status = 1, .output = "[OK] Codex CLI: 1"});
  reconnect(true, "more");
  EXPECT_EQ(closeWindow(), errorWindow("刷新連線", "🟢 Codex CLI: 1\n\nmore"));
  EXPECT_EQ(statusRow(), connectedRow) << "the status decides";
  EXPECT_EQ(title(4), "Codex：尚未檢查");
  reconnect(false, "more");
  machine.loop.advance(Seconds{100});
  EXPECT_EQ(reconnects(), 2U);
  EXPECT_EQ(statusQueries(), 2U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  machine.processes.launchError = "Cannot allocate memory";
  reconnect(true);
  EXPECT_EQ(closeWindow(), errorWindow("刷新連線", "Cannot allocate memory"));
}

TEST_F(Reconnect, WindowIsShownWhenTheFinalRefreshIsDropped) {
  controller->reconnectServices(true);
  machine.loop.settle();
  state.statusRefreshInProgress = true;
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusQueries(), 0U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  controller->rebuildMenu("", ConnectionLampState::ok, 0);
  EXPECT_EQ(title(18), reconnectingCommand);
}

TEST_F(Reconnect, EndsWithAnEarlierStatusQuery) {
  bool commandRan = false;
  refreshAnswers({.runtime = Seconds{1}, .whileRunning = [&] {
                    commandRan = true;
                    EXPECT_EQ(title(18), "手動停止連線");
                    EXPECT_EQ(statusRow(), connectedRow);
                  }});
  controller->refreshStatus(false);
  controller->reconnectServices(false);
  machine.loop.runMain();
  EXPECT_EQ(title(18), reconnectingCommand);
  machine.loop.settle();
  EXPECT_TRUE(commandRan);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusQueries(), 2U);
}

TEST_F(Reconnect, TwoReconnectsRunOneAfterTheOther) {
  refreshAnswers({.runtime = Seconds{2}});
  controller->reconnectServices(true);
  controller->reconnectServices(true, "設定已保存");
  machine.loop.runMain();
  EXPECT_EQ(machine.loop.workerJobs(), 2U);
  machine.loop.settle();
  ASSERT_EQ(reconnects(), 2U);
  const auto& launches = machine.processes.launches;
  EXPECT_NEAR((launches[1].at - launches[0].at).count(), 2, 0.051);
  machine.loop.advance(Seconds{5});
  EXPECT_EQ(statusQueries(), 2U);
  EXPECT_EQ(closeWindow(), informationWindow("刷新連線", "沒有輸出。"));
  EXPECT_EQ(closeWindow(), informationWindow("設定已保存", "沒有輸出。"));
  EXPECT_EQ(title(18), "手動停止連線");
}

constexpr auto windowTitle = "手動關停連線";
constexpr auto stoppedRow = "🔴 連線狀態：已手動關停，背景服務已停止";

using StopScript = ControllerTest;

TEST_F(StopScript, HasThirteenLinesInOrder) {
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

struct StopConnection : WithStatusItem {
  void stop() { choose("stopConnection"); }
};

TEST_F(StopConnection, UpdatesTheStateInOrder) {
  backendAnswers({.output = "[OK] Codex CLI: 1"});
  refresh();
  controller->reconnectServices(false);
  controller->performAction("stopConnection");
  machine.loop.runMain();
  machine.loop.runOneWorkerJob();
  stopAnswers({.status = 1, .output = "[FAIL] Codex CLI: gone"});
  machine.loop.runOneWorkerJob();
  state.statusRefreshInProgress = true;
  newCalls();
  machine.statusItem.whenMenuIsSet = [&] { EXPECT_TRUE(isStored("autoConnectEnabled", false)); };
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), (CallLog{"release display assertion", "release system assertion",
                                 std::string("setMenu ") + stoppedRow, "setButton Kestrune · 異常 · 未同步",
                                 "present alert", std::string("show alert ") + windowTitle}));
  EXPECT_EQ(row(4).title, "Codex：OK 1");
  EXPECT_EQ(row(8).title, "同步專案：未同步");
  EXPECT_EQ(row(9).title, "同步會話：尚未啟動");
  EXPECT_EQ(row(11).title, "保持喚醒：已關閉");
  EXPECT_EQ(row(15).checked, false);
  EXPECT_EQ(row(18).title, "立即重新檢查連線") << "although a reconnect was under way";
  EXPECT_TRUE(state.statusRefreshInProgress);
}

TEST_F(StopConnection, ShowsTheOutputAndNoErrorWindow) {
  const auto expectWindow = [this](const std::string& content) {
    stop();
    EXPECT_EQ(closeWindow(), informationWindow(windowTitle, content));
    machine.loop.advance(Seconds{10});
  };
  stopAnswers({});
  expectWindow("沒有輸出。\n\n已同步關閉自動連線。");
  stopAnswers({.output = "[OK] a\n[FAIL] b"});
  expectWindow("🟢 a\n🔴 b\n\n已同步關閉自動連線。");
  stopAnswers({.status = 1, .output = "Boot-out failed: 3: No such process\n"});
  expectWindow("Boot-out failed: 3: No such process\n\n已同步關閉自動連線。");
  machine.processes.launchError = "Cannot allocate memory";
  expectWindow("Cannot allocate memory\n\n已同步關閉自動連線。");
  machine.processes.launchError = "";
  expectWindow("已停止本地服務、桌面橋接與反向隧道，並已關閉自動連線。");
  EXPECT_EQ(machine.processes.launches.size(), 5U) << "and no status is asked for";
}

TEST_F(StopConnection, GivesTheScriptEightSeconds) {
  stopAnswers({.runtime = Seconds{60}, .output = "x"});
  controller->performAction("stopConnection");
  EXPECT_NEAR(timeOfWorkerJob().count(), 8.2, 0.051);
  EXPECT_EQ(machine.processes.launches.back().arguments.back(), controller->backendServiceStopCommand());
  EXPECT_TRUE(machine.userDefaults.values.empty());
  machine.loop.settle();
  EXPECT_EQ(closeWindow(),
            informationWindow(windowTitle, "x\n命令逾時，已停止等待。\n\n已同步關閉自動連線。"));
  EXPECT_TRUE(isStored("autoConnectEnabled", false));
  EXPECT_EQ(statusRow(), stoppedRow);
}

TEST_F(StopConnection, RefreshThatEndsLaterRedrawsTheOldLampUntilTheNextTick) {
  // With a token, the refresh ends with a query of the live session, which runs after the stop script.
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=t";
  controller->startPeriodicRefresh();
  controller->refreshStatus(false);
  controller->performAction("stopConnection");
  machine.loop.runOneWorkerJob();  // the status query
  machine.loop.runMain();
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
  machine.loop.runOneWorkerJob();  // the stop script
  machine.loop.runMain();
  EXPECT_EQ(statusRow(), stoppedRow);
  machine.loop.settle();  // the query of the live session
  EXPECT_EQ(statusRow(), connectedRow);
  EXPECT_EQ(title(18), "立即重新檢查連線");
  EXPECT_TRUE(machine.powerAssertions.held.empty());
  machine.loop.advance(Seconds{20.1});
  EXPECT_EQ(statusRow(), disabledRow);
}

TEST_F(StopConnection, LeavesTheFinalRefreshOfAReconnect) {
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
