#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Preferences : ControllerTest {
  using Value = std::variant<bool, std::string>;
  std::map<std::string, Value>& stored = machine.userDefaults.values;

  void expectRead(bool autoConnect, bool keepAwake, bool official) const {
    EXPECT_EQ(controller->isAutoConnectEnabled(), autoConnect);
    EXPECT_EQ(controller->isKeepAwakeEnabled(), keepAwake);
    EXPECT_EQ(controller->isOfficialConnectionMode(), official);
    EXPECT_EQ(controller->connectionModeLabel(), official ? "官方 ChatGPT" : "Kestrune 自托管");
  }
};

TEST_F(Preferences, AreStoredUnderTheirKeysAndNotCached) {
  controller->setAutoConnectEnabled(false);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"autoConnectEnabled", false}}));
  expectRead(false, true, false);
  controller->setKeepAwakeEnabled(false);
  controller->setOfficialConnectionMode(true);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"autoConnectEnabled", false},
                                                  {"keepAwakeEnabled", false},
                                                  {"connectionMode", std::string("official_chatgpt")}}));
  expectRead(false, false, true);
  controller->setAutoConnectEnabled(true);
  controller->setKeepAwakeEnabled(true);
  controller->setOfficialConnectionMode(false);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"autoConnectEnabled", true},
                                                  {"keepAwakeEnabled", true},
                                                  {"connectionMode", std::string("kestrune_self_hosted")}}));
  expectRead(true, true, false);
  stored["autoConnectEnabled"] = false;
  expectRead(false, true, false);
}

TEST_F(Preferences, OnlyTheExactTextSelectsTheOfficialMode) {
  for (const char* text : {"OFFICIAL_CHATGPT", "official", "", "official_chatgpt ", " official_chatgpt",
                           "kestrune_self_hosted", "official_chatgpt\n"}) {
    SCOPED_TRACE(text);
    stored["connectionMode"] = std::string(text);
    expectRead(true, true, false);
  }
}

struct ConnectionModeToggle : WithStatusItem {
  std::variant<bool, std::string> stored() const { return machine.userDefaults.values.at("connectionMode"); }
};

TEST_F(ConnectionModeToggle, SwitchesToTheOfficialMode) {
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

TEST_F(ConnectionModeToggle, SwitchesToTheSelfHostedMode) {
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

struct AutoConnectToggle : WithStatusItem {
  const Alert onWindow = informationWindow("已開啟自動連線",
                                           "之後換 Wi\xE2\x80\x91"
                                           "Fi、熱點或網路路徑時，Kestrune 會自動重新檢查並嘗試恢復連線。");
  const Alert offWindow =
      informationWindow("已關閉自動連線", "已停止本地服務、桌面橋接與反向隧道；之後換網時也不會自動重連。");
};

TEST_F(AutoConnectToggle, OffQueuesTheStopAndShowsTheDisabledState) {
  controller->ensureSleepAssertion();
  newCalls();
  machine.statusItem.whenMenuIsSet = [&] {
    EXPECT_EQ(machine.loop.workerJobs(), 1U);
    EXPECT_TRUE(isStored("autoConnectEnabled", false));
  };
  controller->performAction("toggleAutoConnect");
  machine.loop.runMain();
  EXPECT_EQ(
      newCalls(),
      (CallLog{"release display assertion", "release system assertion", std::string("setMenu ") + disabledRow,
               "setButton Kestrune · 檢查中 · 未同步", "present alert", "show alert 已關閉自動連線"}));
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
  EXPECT_EQ(row(15).checked, false);
  EXPECT_EQ(machine.alerts.shown, std::vector{offWindow});
}

TEST_F(AutoConnectToggle, OffIgnoresTheResultOfTheStop) {
  for (const ChildScript& script : {ChildScript{.output = "[FAIL] Codex CLI: x"}, ChildScript{.status = 1},
                                    ChildScript{.runtime = Seconds{60}, .ignoresTerminate = true}}) {
    setAutoConnect(true);
    stopAnswers(script);
    controller->performAction("toggleAutoConnect");
    machine.loop.runMain();
    newCalls();
    machine.loop.runOneWorkerJob();
    newCalls();
    machine.loop.settle();
    EXPECT_EQ(newCalls(), CallLog{});
    EXPECT_EQ(closeWindow(), offWindow);
  }
  EXPECT_EQ(stops(), 3U);
  EXPECT_EQ(title(4), "Codex：尚未檢查");
}

TEST_F(AutoConnectToggle, OnReconnectsAndShowsOneWindow) {
  setAutoConnect(false);
  refreshAnswers({.status = 1, .output = "x"});
  controller->performAction("toggleAutoConnect");
  EXPECT_EQ(newCalls(), CallLog{"present alert"});
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), (CallLog{"create display assertion", "create system assertion",
                                 std::string("setMenu ") + reconnectingRow,
                                 "setButton Kestrune · 檢查中 · 目前專案", "show alert 已開啟自動連線"}));
  EXPECT_TRUE(isStored("autoConnectEnabled", true));
  EXPECT_EQ(row(15).checked, true);
  closeWindow();
  machine.loop.advance(Seconds{5});
  EXPECT_EQ(reconnects(), 1U);
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.alerts.shown, std::vector{onWindow});
  EXPECT_TRUE(machine.notifications.posted.empty());
}

}  // namespace
}  // namespace kestrune::testing
