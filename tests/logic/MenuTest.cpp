#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using Lamp = ConnectionLampState;

struct MenuRows : WithStatusItem {
  /// Builds a new menu and returns it.
  const Menu& build(const std::string& statusText = "x", Lamp lamp = Lamp::warning) {
    controller->rebuildMenu(statusText, lamp, 0);
    return machine.statusBar.menu();
  }
};

MenuItem label(int id, std::string title) {
  return {.id = id, .title = std::move(title), .enabled = false};
}
MenuItem separator(int id) {
  return {.id = id, .isSeparator = true};
}
MenuItem command(int id, std::string title, std::string action, std::string key,
                 std::optional<bool> checked = std::nullopt) {
  return {.id = id,
          .title = std::move(title),
          .action = std::move(action),
          .keyEquivalent = std::move(key),
          .checked = checked,
          .enabled = true};
}

TEST_F(MenuRows, AreTwentyNineInOrder) {
  const std::vector<MenuItem> expected{
      label(1, "Kestrune"),
      label(2, "🟡 連線狀態：正在檢查狀態…"),
      label(3, "連接模式：Kestrune 自托管"),
      label(4, "Codex：尚未檢查"),
      label(5, "Remote Control：尚未檢查"),
      label(6, "Codex App：尚未檢查"),
      label(7, "ChatGPT Remote：尚未檢查"),
      label(8, "同步專案：目前專案"),
      label(9, "同步會話：尚未取得"),
      label(10, "目前網路：未知網路"),
      label(11, "保持喚醒：已關閉"),
      separator(12),
      label(13, "連線與常駐"),
      command(14, "開機自動啟動菜單欄", "toggleLaunchAtLogin", "l", false),
      command(15, "自動維持連線", "toggleAutoConnect", "a", true),
      command(16, "保持 Mac 醒著（防止斷線）", "toggleKeepAwake", "k", true),
      command(17, "使用官方 ChatGPT 模式", "toggleConnectionMode", "m"),
      command(18, "手動停止連線", "stopConnection", "x"),
      separator(19),
      label(20, "查看與設定"),
      command(21, "查看完整診斷", "showStatus", "s"),
      command(22, "檢查 Codex 版本與 Remote Control", "showCodexRuntimeStatus", "c"),
      command(23, "打開 Codex App", "openCodexApp", "d"),
      command(24, "官方 ChatGPT 連接說明", "showChatGPTRemoteGuide", "g"),
      command(25, "打開專案資料夾", "openProjectFolder", "o"),
      command(26, "連線與 Token 設定…", "showSettings", ","),
      command(27, "重新啟動菜單欄", "restartMenuClient", "R"),
      separator(28),
      command(29, "退出 Kestrune", "quit", "q"),
  };
  EXPECT_EQ(build("正在檢查狀態…").items, expected);
}

TEST_F(MenuRows, ShowTheCurrentTextsAndShortenTheThreadName) {
  const std::string longest(100, 'x');
  backendAnswers({.output = "[OK] Codex CLI:  0.46.0 \n[FAIL] Codex Remote Control: not enabled"});
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=t";
  machine.localService.answer = R"({"projects":[{"selected":true,"title":" my_project & <co> )" + longest +
                                R"(","thread_name":"  )" + longest + R"("}]})";
  machine.userDefaults.setBool("keepAwakeEnabled", false);
  controller->startMonitoringNetwork();
  Menu expected = build();
  machine.pathMonitors.report({.satisfied = true, .usesWiFi = true});
  machine.loop.advance(Seconds{5});
  expected.items[3] = label(4, "Codex：OK 0.46.0");
  expected.items[4] = label(5, "Remote Control：需檢查 not enabled");
  expected.items[7] = label(8, "同步專案： my_project & <co> " + longest);
  expected.items[8] = label(9, "同步會話：" + longest.substr(0, 31) + "...");
  expected.items[9] = label(10, "目前網路：Wi-Fi 已連線");
  EXPECT_EQ(build(), expected);
}

TEST_F(MenuRows, ConnectionCommandDependsOnReconnectAndAutoConnect) {
  const MenuItem reconnecting = label(18, "正在重新檢查並恢復連線…");
  const MenuItem stop = command(18, "手動停止連線", "stopConnection", "x");
  const MenuItem check = command(18, "立即重新檢查連線", "refreshNow", "r");
  struct Case {
    bool reconnectInProgress;
    bool autoConnect;
    const MenuItem& row;
  };
  const Case cases[] = {
      {true, true, reconnecting}, {true, false, reconnecting}, {false, true, stop}, {false, false, check}};
  Menu expected = build();
  for (const Case& each : cases) {
    state.reconnectInProgress = each.reconnectInProgress;
    setAutoConnect(each.autoConnect);
    expected.items[14] = command(15, "自動維持連線", "toggleAutoConnect", "a", each.autoConnect);
    expected.items[17] = each.row;
    EXPECT_EQ(build(), expected);
  }
}

TEST(MenuWithoutStatusItem, StopsTheProcess) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  FakePlatform machine;
  const auto controller = std::make_shared<AppDelegate>(machine.platform);
  EXPECT_DEATH(controller->rebuildMenu("x", Lamp::ok, 0),
               "fatal error: the menu is built before the status item exists");
}

}  // namespace
}  // namespace kestrune::testing
