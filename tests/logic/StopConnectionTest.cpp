#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

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

TEST_F(StopConnection, RunsTheStopScriptOnTheWorker) {
  controller->performAction("stopConnection");
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), CallLog{});
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
  EXPECT_EQ(machine.processes.launches.back().arguments,
            (std::vector<std::string>{"-lc", controller->backendServiceStopCommand()}));
  EXPECT_TRUE(machine.userDefaults.values.empty());
}

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
  machine.statusBar.whenMenuIsSet = [&] { EXPECT_TRUE(isStored("autoConnectEnabled", false)); };
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
  machine.loop.settle();
  EXPECT_EQ(closeWindow(),
            informationWindow(windowTitle, "x\n命令逾時，已停止等待。\n\n已同步關閉自動連線。"));
  EXPECT_TRUE(isStored("autoConnectEnabled", false));
  EXPECT_EQ(statusRow(), stoppedRow);
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
