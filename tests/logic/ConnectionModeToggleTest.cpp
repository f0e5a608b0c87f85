#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct ConnectionModeToggle : WithStatusItem {
  std::variant<bool, std::string> stored() const { return machine.userDefaults.values.at("connectionMode"); }
};

TEST_F(ConnectionModeToggle, SwitchesToTheOfficialModeAndSaysSoButTouchesNothingElse) {
  controller->reconnectServices(false);
  machine.loop.runMain();
  newCalls();
  controller->performAction("toggleConnectionMode");
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), (CallLog{"setMenu 🟡 連線狀態：已切換到官方 ChatGPT 模式",
                                 "present alert", "show alert 已切換連接模式"}));
  EXPECT_EQ(machine.loop.workerJobs(), 1U) << "that of the reconnect";
  EXPECT_EQ(stored(), (std::variant<bool, std::string>("official_chatgpt")));
  EXPECT_EQ(machine.userDefaults.values.size(), 1U);
  EXPECT_EQ(title(3), "連接模式：官方 ChatGPT");
  EXPECT_EQ(title(17), "使用 Kestrune 自托管模式");
  EXPECT_EQ(title(18), reconnectingCommand);
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
  EXPECT_EQ(title(3), "連接模式：Kestrune 自托管");
  EXPECT_EQ(title(17), "使用官方 ChatGPT 模式");
  EXPECT_EQ(machine.alerts.shown,
            std::vector{informationWindow("已切換連接模式",
                                          "目前模式：Kestrune 自托管。\n\n"
                                          "菜單欄會重點協助你維持 Mac service、desktop bridge、VPS tunnel、"
                                          "配對 QR 和手機 App Token。")});
}

}  // namespace
}  // namespace kestrune::testing
