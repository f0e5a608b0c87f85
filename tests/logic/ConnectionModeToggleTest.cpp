#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct ConnectionModeToggle : ControllerTest {
  ConnectionModeToggle() { makeStatusItem(); }

  std::variant<bool, std::string> stored() const { return machine.userDefaults.values.at("connectionMode"); }
};

TEST_F(ConnectionModeToggle, SwitchesToTheOfficialModeAndSaysSo) {
  choose("toggleConnectionMode");
  EXPECT_EQ(stored(), (std::variant<bool, std::string>("official_chatgpt")));
  EXPECT_EQ(statusRow(), "🟡 連線狀態：已切換到官方 ChatGPT 模式");
  EXPECT_EQ(machine.statusBar.row(3).title, "連接模式：官方 ChatGPT");
  EXPECT_EQ(machine.statusBar.row(17).title, "使用 Kestrune 自托管模式");
  EXPECT_EQ(machine.alerts.shown,
            std::vector{informationWindow(
                "已切換連接模式",
                "目前模式：官方 ChatGPT。\n\n"
                "菜單欄會重點協助你保持 Mac 醒著、打開 Codex App、檢查 ChatGPT Remote Ready。"
                "Kestrune 自托管服務不會被自動關閉；需要停止時可手動關停連線。")});
}

TEST_F(ConnectionModeToggle, SwitchesToTheSelfHostedModeAndSaysSo) {
  controller->setOfficialConnectionMode(true);
  choose("toggleConnectionMode");
  EXPECT_EQ(stored(), (std::variant<bool, std::string>("kestrune_self_hosted")));
  EXPECT_EQ(statusRow(), "🟡 連線狀態：已切換到 Kestrune 自托管模式");
  EXPECT_EQ(machine.statusBar.row(3).title, "連接模式：Kestrune 自托管");
  EXPECT_EQ(machine.statusBar.row(17).title, "使用官方 ChatGPT 模式");
  EXPECT_EQ(machine.alerts.shown,
            std::vector{informationWindow("已切換連接模式",
                                          "目前模式：Kestrune 自托管。\n\n"
                                          "菜單欄會重點協助你維持 Mac service、desktop bridge、VPS tunnel、"
                                          "配對 QR 和手機 App Token。")});
}

TEST_F(ConnectionModeToggle, RebuildsTheMenuWithoutTouchingTheButtonAndThenAsksForItsWindow) {
  choose("toggleConnectionMode");
  EXPECT_EQ(newCalls(), (CallLog{"setMenu 🟡 連線狀態：已切換到官方 ChatGPT 模式",
                                 "present alert", "show alert 已切換連接模式"}));
}

TEST_F(ConnectionModeToggle, StartsAndStopsNothing) {
  state.reconnectInProgress = true;
  controller->ensureSleepAssertion();
  choose("toggleConnectionMode");
  machine.loop.advance(Seconds{10});
  EXPECT_TRUE(machine.processes.launches.empty());
  EXPECT_TRUE(state.reconnectInProgress);
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
  EXPECT_EQ(machine.userDefaults.values.size(), 1U);
}

TEST_F(ConnectionModeToggle, LampOfTheStatusIsReplacedUntilTheNextRefresh) {
  backendAnswers({.output = "[FAIL] tunnel: down"});
  refresh();
  choose("toggleConnectionMode");
  EXPECT_EQ(statusRow(), "🟡 連線狀態：已切換到官方 ChatGPT 模式");
  refresh();
  EXPECT_EQ(statusRow(), "🔴 連線狀態：異常");
}

}  // namespace
}  // namespace kestrune::testing
