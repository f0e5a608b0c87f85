#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

/// The two commands that show the report (output of the backend's status command).
struct BothStatusCommands : WithStatusItem, ::testing::WithParamInterface<const char*> {
  const Alert& window() const { return machine.alerts.shown.back(); }
};

TEST_P(BothStatusCommands, ShowTheReportDuringARefresh) {
  state.statusRefreshInProgress = true;
  setAutoConnect(false);
  backendAnswers({.output = "[OK] Codex CLI: 0.46.0（b）\n\n[FAIL] c: d\ne [OK]"});
  choose(GetParam());
  EXPECT_EQ(statusQueries(), 1U);
  controller->rebuildMenu("x", ConnectionLampState::ok, 0);
  EXPECT_EQ(title(4), "Codex：OK 0.46.0");
  ASSERT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_EQ(window(),
            informationWindow(window().messageText, "🟢 Codex CLI: 0.46.0（b）\n\n🔴 c: d\ne 🟢"));
  EXPECT_TRUE(machine.notifications.posted.empty());
  EXPECT_FALSE(controller->isAutoConnectEnabled());
}

INSTANTIATE_TEST_SUITE_P(Commands, BothStatusCommands,
                         ::testing::Values("showStatus", "showCodexRuntimeStatus"),
                         [](const auto& each) { return each.param; });

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
  struct Case {
    int status;
    const char* output;
    const char* row;
    const char* content;
  };
  const Case cases[] = {
      {0, "[FAIL] Codex CLI: missing", "🟢 連線狀態：Codex 診斷已更新", "🔴 Codex CLI: missing"},
      {0, "[FAIL] tunnel: down", "🔴 連線狀態：Codex 診斷已更新", "🔴 tunnel: down"},
      {1, "[FAIL] tunnel: down", "🔴 連線狀態：Codex 診斷已更新", "🔴 tunnel: down"},
      {1, "x", "🟡 連線狀態：Codex 診斷已更新", "x"},
  };
  for (const Case& each : cases) {
    backendAnswers({.status = each.status, .output = each.output});
    choose("showCodexRuntimeStatus");
    EXPECT_EQ(statusRow(), each.row) << each.output;
    EXPECT_EQ(closeWindow(), informationWindow("Codex 版本與 Remote Control", each.content));
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

}  // namespace
}  // namespace kestrune::testing
