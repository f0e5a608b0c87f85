#include <regex>
#include <set>
#include <sstream>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using MenuCommands = WithStatusItem;

TEST_F(MenuCommands, KeepTheControllerAliveUntilTheyAreDone) {
  for (const auto& [action, launches] : {std::pair{"toggleAutoConnect", 1U},
                                         {"stopConnection", 1U},
                                         {"showCodexRuntimeStatus", 1U},
                                         {"showStatus", 2U},
                                         {"refreshNow", 2U},
                                         {"toggleLaunchAtLogin", 2U}}) {
    SCOPED_TRACE(action);
    FakePlatform other;
    other.fileManager.files[envFile] = "KESTRUNE_MAC_SERVICE_TOKEN=t";
    auto another = std::make_shared<AppDelegate>(other.platform);
    another->configureStatusItem();
    another->performAction(action);
    const std::weak_ptr<AppDelegate> weak = std::exchange(another, nullptr);
    EXPECT_FALSE(weak.expired());
    other.loop.advance(Seconds{1.25});
    EXPECT_EQ(other.processes.launches.size(), launches);
    EXPECT_EQ(other.localService.tokens.size(), launches - 1) << "the session of the refresh";
    EXPECT_TRUE(weak.expired());
  }
}

struct RequestedCommands : ControllerTest {
  RequestedCommands() {
    backendAnswers({.output = "fine"});
    startUp();
  }
  std::string refusal(const std::string& action) {
    const Result<> performed = machine.statusFeed.perform(action);
    machine.loop.settle();
    return performed ? "" : performed.reason();
  }
};

TEST_F(RequestedCommands, RunTheActionOfARow) {
  EXPECT_EQ(refusal("showChatGPTRemoteGuide"), "");
  ASSERT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_EQ(machine.alerts.shown[0].messageText, "官方 ChatGPT 連接說明");
  EXPECT_EQ(refusal("quit"), "");
  EXPECT_TRUE(machine.loop.isTerminated());
  controller.reset();
  EXPECT_NE(refusal("quit"), "");
}

TEST_F(RequestedCommands, RefuseUnknownActions) {
  newCalls();
  for (const std::string action : {"", "fly", "Quit", "quit ", "quit\n"}) {
    EXPECT_EQ(refusal(action), "unknown action: " + action + "; \"--perform help\" lists all actions");
    controller->performAction(action);  // from a menu or a button
  }
  // This action belongs to a button of the settings, not to a row of the menu.
  EXPECT_EQ(refusal("showPairingQR"), "no enabled menu row has this action now: showPairingQR");
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(RequestedCommands, AreListedWithTheTextsOfTheirRows) {
  std::stringstream lines(AppDelegate::describeActions());
  std::string list;
  for (std::string action, text; lines >> action && std::getline(lines >> std::ws, text);) {
    list += action + ":" + text + "\n";
  }
  EXPECT_EQ(list,
            "toggleLaunchAtLogin:開機自動啟動菜單欄\n"
            "toggleAutoConnect:自動維持連線\n"
            "toggleKeepAwake:保持 Mac 醒著（防止斷線）\n"
            "toggleConnectionMode:使用 Kestrune 自托管模式 / 使用官方 ChatGPT 模式\n"
            "stopConnection:手動停止連線\n"
            "refreshNow:立即重新檢查連線\n"
            "showStatus:查看完整診斷\n"
            "showCodexRuntimeStatus:檢查 Codex 版本與 Remote Control\n"
            "openCodexApp:打開 Codex App\n"
            "showChatGPTRemoteGuide:官方 ChatGPT 連接說明\n"
            "openProjectFolder:打開專案資料夾\n"
            "showSettings:連線與 Token 設定…\n"
            "restartMenuClient:重新啟動菜單欄\n"
            "quit:退出 Kestrune\n");
}

TEST_F(RequestedCommands, RefuseDisabledRows) {
  EXPECT_EQ(refusal("refreshNow"), "no enabled menu row has this action now: refreshNow");
  controller->reconnectServices(false);
  machine.loop.runMain();
  EXPECT_FALSE(machine.statusFeed.perform("stopConnection"));
  machine.loop.settle();
  setAutoConnect(false);
  EXPECT_EQ(stops(), 0U);
  refresh();
  EXPECT_EQ(refusal("refreshNow"), "");
  machine.loop.advance(Seconds{2});
  EXPECT_EQ(refusal("stopConnection"), "");
  EXPECT_EQ(stops(), 1U);
}

TEST_F(MenuCommands, ChosenRowOfADestroyedControllerDoesNothing) {
  performMenuItem(row(29));
  EXPECT_EQ(newCalls(), CallLog{"terminate"});
  controller.reset();
  performMenuItem(row(29));
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(MenuCommands, RefreshNowSwitchesAutoConnectOnAndReconnects) {
  setAutoConnect(false);
  refreshAnswers({.output = "[OK] tunnel: up"});
  controller->performAction("refreshNow");
  EXPECT_TRUE(isStored("autoConnectEnabled", true));
  machine.loop.runMain();
  EXPECT_EQ(newCalls(),
            (CallLog{"create display assertion", "create system assertion",
                     std::string("setMenu ") + reconnectingRow, "setButton Kestrune · 檢查中 · 目前專案"}));
  EXPECT_EQ(row(15).checked, true);
  machine.loop.settle();
  EXPECT_TRUE(machine.alerts.shown.empty());
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(machine.alerts.shown, std::vector{informationWindow("刷新連線", "🟢 tunnel: up")});
}

TEST_F(MenuCommands, OpenProjectFolderOpensTheRepository) {
  choose("openProjectFolder");
  EXPECT_EQ(newCalls(), CallLog{"open /home/u/backend"});
  EXPECT_EQ(machine.loop.workerJobs(), 0U);
}

TEST_F(MenuCommands, OpenCodexAppOpensItOrReportsThatItIsMissing) {
  for (const char* const other : {"/Applications/Codex", "/Applications"}) machine.fileManager.files[other];
  choose("openCodexApp");
  EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert 未找到 Codex App"}));
  EXPECT_EQ(closeWindow(), errorWindow("未找到 Codex App",
                                       "請先安裝最新版 Codex App。官方 ChatGPT 手機遠程連接需要 Mac 上運行 "
                                       "Codex App，不能只靠 CLI 或 IDE 啟動。"));
  machine.fileManager.files["/Applications/Codex.app"];
  choose("openCodexApp");
  EXPECT_EQ(newCalls(), CallLog{"open /Applications/Codex.app"});
}

TEST_F(MenuCommands, GuideShowsAText) {
  choose("showChatGPTRemoteGuide");
  EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert 官方 ChatGPT 連接說明"}));
  EXPECT_EQ(machine.alerts.shown, std::vector{informationWindow(
                                      "官方 ChatGPT 連接說明",
                                      "官方 ChatGPT 手機連接流程：\n"
                                      "\n"
                                      "1. 確認 Mac 已安裝並登入最新版 Codex App。\n"
                                      "2. 保持 Mac 醒著、在線，並讓 Codex App 持續運行。\n"
                                      "3. 在 Codex App 側邊欄選「Set up Codex mobile」。\n"
                                      "4. 用手機掃描 Codex App 顯示的 QR code。\n"
                                      "5. 在 ChatGPT App 內確認同一個帳號和 workspace，完成連接。\n"
                                      "\n"
                                      "Kestrune 自托管路徑仍然使用 VPS Relay、Mac service 和手機 App Token。"
                                      "兩條路徑可以並行使用：普通遠程控制用官方 ChatGPT App；"
                                      "需要自托管、私有 Relay 或獨立交付時用 Kestrune。")});
}

TEST_F(MenuCommands, RestartStartsANewInstanceAndTerminates) {
  machine.mainBundle.bundle = "/home/u/backend/dist/Kestrune Menu Client.app";
  controller->performAction("restartMenuClient");
  EXPECT_EQ(newCalls(),
            (CallLog{"launch /opt/kestrune/KestruneMenuClient",
                     "open new instance of /home/u/backend/dist/Kestrune Menu Client.app", "terminate"}));
  EXPECT_EQ(machine.processes.launches.back().arguments, std::vector<std::string>{"--version"});
  EXPECT_EQ(machine.loop.workerJobs(), 0U);
}

TEST_F(MenuCommands, FailedRestartCanBeRetried) {
  machine.workspace.launchError = "找不到檔案。";
  choose("restartMenuClient");
  EXPECT_EQ(newCalls(), (CallLog{"launch /opt/kestrune/KestruneMenuClient",
                                 "open new instance of " + controller->currentAppBundlePath(),
                                 "present alert", "show alert 重新啟動失敗"}));
  EXPECT_EQ(closeWindow(), errorWindow("重新啟動失敗", "無法重新打開 Kestrune 菜單欄：找不到檔案。"));
  EXPECT_FALSE(machine.loop.isTerminated());
  machine.workspace.launchError.reset();
  choose("restartMenuClient");
  EXPECT_TRUE(machine.loop.isTerminated());
}

TEST_F(MenuCommands, RestartOfABrokenProgramKeepsTheInstance) {
  const auto expectFailure = [this](const std::string& reason) {
    newCalls();
    choose("restartMenuClient");
    EXPECT_EQ(newCalls(), (CallLog{"launch /opt/kestrune/KestruneMenuClient", "present alert",
                                   "show alert 重新啟動失敗"}));
    EXPECT_EQ(closeWindow(), errorWindow("重新啟動失敗", "無法重新打開 Kestrune 菜單欄：" + reason));
  };
  shellAnswers("--version", {.status = 127, .output = "libx.so.1: cannot open shared object file\n"});
  expectFailure("libx.so.1: cannot open shared object file");
  shellAnswers("--version", {.status = 139});
  expectFailure("程式以狀態 139 結束。");
  machine.processes.launchError = "Exec format error";
  expectFailure("Exec format error");
  EXPECT_FALSE(machine.loop.isTerminated());
}

TEST_F(MenuCommands, RestartGivesTheNewProgramTwoSeconds) {
  shellAnswers("--version", {.runtime = Seconds{60}});
  choose("restartMenuClient");
  machine.loop.advance(Seconds{1.9});
  EXPECT_EQ(newCalls(), CallLog{"launch /opt/kestrune/KestruneMenuClient"});
  machine.loop.advance(Seconds{0.2});
  EXPECT_EQ(newCalls(), (CallLog{"terminate group", "present alert", "show alert 重新啟動失敗"}));
  EXPECT_EQ(machine.alerts.shown,
            std::vector{errorWindow("重新啟動失敗", "無法重新打開 Kestrune 菜單欄：命令逾時，已停止等待。")});

  shellAnswers("--version", {.runtime = Seconds{1.9}});
  choose("restartMenuClient");
  EXPECT_FALSE(machine.loop.isTerminated());
  machine.loop.advance(Seconds{2});
  EXPECT_TRUE(machine.loop.isTerminated());
}

TEST_F(MenuCommands, BothStatusCommandsShowTheReportDuringARefresh) {
  state.statusRefreshInProgress = true;
  setAutoConnect(false);
  backendAnswers({.output = "[OK] Codex CLI: 0.46.0（b）\n\n[FAIL] c: d\ne [OK]"});
  for (const char* const action : {"showStatus", "showCodexRuntimeStatus"}) {
    machine.processes.launches.clear();
    choose(action);
    EXPECT_EQ(statusQueries(), 1U);
    controller->rebuildMenu("x", ConnectionLampState::ok, 0);
    EXPECT_EQ(title(4), "Codex：OK 0.46.0");
    const Alert window = closeWindow();
    EXPECT_EQ(window,
              informationWindow(window.messageText, "🟢 Codex CLI: 0.46.0（b）\n\n🔴 c: d\ne 🟢"));
  }
  EXPECT_TRUE(machine.notifications.posted.empty());
  EXPECT_FALSE(controller->isAutoConnectEnabled());
}

using ShowStatus = WithStatusItem;

TEST_F(ShowStatus, IsAnErrorOnlyWhenTheCommandFails) {
  backendAnswers({.output = "[FAIL] tunnel: down"});
  choose("showStatus");
  EXPECT_EQ(closeWindow(), informationWindow("目前狀態", "🔴 tunnel: down"));
  backendAnswers({.status = 1, .output = "[OK] a"});
  choose("showStatus");
  EXPECT_EQ(closeWindow(), errorWindow("目前狀態", "🟢 a"));
  machine.processes.launchError = "Cannot allocate memory";
  choose("showStatus");
  EXPECT_EQ(closeWindow(), errorWindow("目前狀態", "Cannot allocate memory"));
}

TEST_F(ShowStatus, NamesAFolderThatHoldsNoBackend) {
  EXPECT_EQ(controller->missingBackendWarning(), std::nullopt);
  machine.fileManager.files.erase(environmentScript);
  EXPECT_EQ(controller->missingBackendWarning(),
            "no backend in /home/u/backend, the working directory: it has no .venv/bin/activate. "
            "Set KESTRUNE_REPO_PATH to the folder of the backend.");
  backendAnswers({.status = 1, .output = "bash: .venv/bin/activate: No such file or directory"});
  choose("showStatus");
  EXPECT_EQ(closeWindow(), errorWindow("目前狀態",
                                       "後端資料夾 /home/u/backend 裡沒有 .venv/bin/activate。請把環境變數 "
                                       "KESTRUNE_REPO_PATH 設為後端的資料夾，再重新啟動。\n\n"
                                       "bash: .venv/bin/activate: No such file or directory"));
}

TEST_F(ShowStatus, StartsARefreshAndShowsItsWindow) {
  machine.alerts.whenAsked = [this] { EXPECT_TRUE(state.statusRefreshInProgress); };
  choose("showStatus");
  EXPECT_EQ(statusQueries(), 2U);
  EXPECT_EQ(newCalls(),
            (CallLog{"launch /bin/bash", "present alert", "show alert 目前狀態", "launch /bin/bash",
                     "create display assertion", "create system assertion",
                     std::string("setMenu ") + connectedRow, "setButton Kestrune · 已連線 · 未配置"}));
}

using ShowCodexRuntimeStatus = WithStatusItem;

TEST_F(ShowCodexRuntimeStatus, ShowsTheLampAndNoErrorWindow) {
  const std::tuple<int, const char*, const char*, const char*> cases[] = {
      {0, "[FAIL] Codex CLI: missing", "🟢 連線狀態：Codex 診斷已更新", "🔴 Codex CLI: missing"},
      {0, "[FAIL] tunnel: down", "🔴 連線狀態：Codex 診斷已更新", "🔴 tunnel: down"},
      {1, "[FAIL] tunnel: down", "🔴 連線狀態：Codex 診斷已更新", "🔴 tunnel: down"},
      {1, "x", "🟡 連線狀態：Codex 診斷已更新", "x"},
  };
  for (const auto& [status, output, shown, content] : cases) {
    backendAnswers({.status = status, .output = output});
    choose("showCodexRuntimeStatus");
    EXPECT_EQ(statusRow(), shown) << output;
    EXPECT_EQ(closeWindow(), informationWindow("Codex 版本與 Remote Control", content));
  }
  EXPECT_EQ(title(4), "Codex：尚未檢查");
}

TEST_F(ShowCodexRuntimeStatus, OnlyRebuildsTheMenu) {
  state.reconnectInProgress = true;
  controller->ensureSleepAssertion();
  newCalls();
  backendAnswers({.status = 1, .output = "[OK] Codex CLI: 0.46.0"});
  choose("showCodexRuntimeStatus");
  EXPECT_EQ(newCalls(), (CallLog{"launch /bin/bash", "setMenu 🟡 連線狀態：Codex 診斷已更新",
                                 "present alert", "show alert Codex 版本與 Remote Control"}));
  EXPECT_FALSE(state.statusRefreshInProgress);
  EXPECT_EQ(title(4), "Codex：OK 0.46.0");
  EXPECT_EQ(title(18), reconnectingCommand);
}

using ResultWindow = ControllerTest;

TEST_F(ResultWindow, ShowsItsTextUnchanged) {
  for (const std::string& content :
       {std::string(), std::string("  a\tb\r\n\n"), std::string("[OK] <b>&amp;</b> %s\\n"),
        std::string("\x1b[31mred\x1b[0m"), std::string(100'000, 'x') + "\n好"}) {
    controller->showResultWindow(content, content, false);
    machine.loop.settle();
    EXPECT_EQ(closeWindow(), (Alert{.style = AlertStyle::informational,
                                    .messageText = content,
                                    .informativeText = content,
                                    .buttons = {"好"}}));
  }
}

using PostedNotifications = ControllerTest;

TEST_F(PostedNotifications, HaveRandomIdentifiers) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> identifiers;
  for (int i = 0; i < 100; ++i) controller->showNotification("same", "same");
  for (const Notification& each : machine.notifications.posted) {
    EXPECT_TRUE(std::regex_match(each.identifier, uuid)) << each.identifier;
    identifiers.insert(each.identifier);
  }
  EXPECT_EQ(identifiers.size(), 100U);
}

}  // namespace
}  // namespace kestrune::testing
