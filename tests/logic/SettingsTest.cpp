#include "tests/logic/SettingsTest.h"

namespace kestrune::testing {
namespace {

TEST_F(Settings, SavingWritesTheFieldsUnderTheCurrentKeys) {
  env() = "KESTRUNE_APP_API_TOKEN=old\n# comment\nOPENAI_API_KEY=sk-1\n";
  leave(save, {{apiURL, "https://relay.test"}, {appToken, "new"}, {serviceToken, "s"}, {projectRoot, "/p"}});
  EXPECT_EQ(env(),
            "KESTRUNE_APP_API_TOKEN=new\n# comment\nOPENAI_API_KEY=sk-1\n\nKESTRUNE_MAC_SERVICE_TOKEN=s\n\n"
            "KESTRUNE_PROJECT_ROOT=/p\n\nKESTRUNE_PUBLIC_API_URL=https://relay.test");
}

TEST_F(Settings, SavingTrimsEveryField) {
  for (const auto& key : keys) env() += key + "=x\n";
  leave(save,
        {{apiURL, ""}, {appToken, " "}, {serviceToken, " \t\n\u3000a  b\u00A0\r\n "}, {openAIKey, "\n"}});
  EXPECT_EQ(env(),
            "KESTRUNE_PUBLIC_API_URL=\nKESTRUNE_APP_API_TOKEN=\nKESTRUNE_MAC_SERVICE_TOKEN=a  b\n"
            "KESTRUNE_PROJECT_ROOT=x\nOPENAI_API_KEY=\n");
}

TEST_F(Settings, SavingKeepsLegacyLines) {
  env() = "HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=service\nHALVASK_PROJECT_ROOT=/old";
  leave(save);
  EXPECT_EQ(env(),
            "HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=service\nHALVASK_PROJECT_ROOT=/old\n\n"
            "KESTRUNE_APP_API_TOKEN=app\n\nKESTRUNE_MAC_SERVICE_TOKEN=service\n\n"
            "KESTRUNE_PROJECT_ROOT=/old\n\nKESTRUNE_PUBLIC_API_URL=https://relay.example.com\n\n"
            "OPENAI_API_KEY=");
}

TEST_F(Settings, SavingReconnects) {
  refreshAnswers({.output = "[OK] tunnel: up"});
  leave(save);
  EXPECT_EQ(newCalls(),
            (CallLog{"write /home/u/backend/.env", "create display assertion", "create system assertion",
                     "setMenu 🟡 連線狀態：正在重新連線…",
                     "setButton Kestrune · 檢查中 · 目前專案", "launch /bin/bash"}));
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  machine.loop.advance(Seconds{1.25});
  ASSERT_EQ(machine.alerts.shown.size(), 2U);
  EXPECT_EQ(machine.alerts.shown.back(), informationWindow("設定已保存並開始重新檢查", "🟢 tunnel: up"));
  EXPECT_EQ(reconnects(), 1U);
  machine.alerts.answer(0);
  setAutoConnect(false);
  leave(save);
  EXPECT_EQ(reconnects(), 2U);
  EXPECT_FALSE(controller->isAutoConnectEnabled());
}

struct SettingsOverOtherValues : Settings {
  static constexpr auto previousFile = "/home/u/backend/.env.previous";

  /// Opens the dialog while the file contains `shown`, changes the file to `meanwhile`, and saves.
  void saveOver(const std::string& shown, const std::string& meanwhile,
                const std::map<std::string, std::string>& edited = {}) {
    env() = shown;
    open();
    newCalls();
    env() = meanwhile;
    machine.alerts.answer(save, edited);
    machine.loop.settle();
  }
  void expectKept(const std::string& text) {
    const CallLog calls = newCalls();
    ASSERT_GE(calls.size(), 3U);
    EXPECT_EQ(calls[0], std::string("write privately ") + previousFile);
    EXPECT_EQ(calls[1], "write /home/u/backend/.env");
    EXPECT_EQ(calls[2], "notify 原有設定已保留");
    EXPECT_EQ(machine.fileManager.files[previousFile], text);
    ASSERT_EQ(machine.notifications.posted.size(), 1U);
    EXPECT_EQ(machine.notifications.posted[0],
              (Notification{.identifier = previousFile,
                            .title = "原有設定已保留",
                            .body = std::string("設定視窗沒有顯示的值已被覆蓋，原檔案保留在 ") + previousFile,
                            .lasting = true}));
    EXPECT_EQ(reconnects(), 1U);
  }
  void expectNothingKept() {
    EXPECT_FALSE(machine.fileManager.files.contains(previousFile));
    EXPECT_TRUE(machine.notifications.posted.empty());
    EXPECT_EQ(newCalls().at(0), "write /home/u/backend/.env");
  }
};

TEST_F(SettingsOverOtherValues, KeepsAFileThatCouldNotBeReadBefore) {
  saveOver("KESTRUNE_APP_API_TOKEN=app\nX=\xFF", "KESTRUNE_APP_API_TOKEN=app\n", {{appToken, "typed"}});
  expectKept("KESTRUNE_APP_API_TOKEN=app\n");
}

TEST_F(SettingsOverOtherValues, KeepsTheFileOfAnotherProgram) {
  saveOver("KESTRUNE_APP_API_TOKEN=shown\n", "KESTRUNE_APP_API_TOKEN=theirs\n", {{appToken, "typed"}});
  expectKept("KESTRUNE_APP_API_TOKEN=theirs\n");
}

TEST_F(SettingsOverOtherValues, KeepsAFileWithAKeyOnTwoLines) {
  const std::string text = "OPENAI_API_KEY=first\nOPENAI_API_KEY=second\n";
  saveOver(text, text, {{appToken, "typed"}});
  expectKept(text);
}

TEST_F(SettingsOverOtherValues, KeepsAFileWithCrLf) {
  const std::string text = "X=1\r\nKESTRUNE_APP_API_TOKEN=app\r\nOPENAI_API_KEY=sk-1\r\n";
  saveOver(text, text);
  expectKept(text);
  EXPECT_NE(env().find("\nKESTRUNE_APP_API_TOKEN=\n"), std::string::npos);
}

TEST_F(SettingsOverOtherValues, KeepsNoCopyWhenNothingIsLost) {
  const std::string shown = "KESTRUNE_APP_API_TOKEN= shown \nOPENAI_API_KEY=\nX=1\n";
  for (const char* const meanwhile :
       {shown.c_str(), "KESTRUNE_APP_API_TOKEN=typed\n", "KESTRUNE_APP_API_TOKEN=\n",
        " KESTRUNE_APP_API_TOKEN=indented\n", "KESTRUNE_APP_API_TOKEN=shown\nX=theirs\n",
        "HALVASK_APP_API_TOKEN=theirs\nOTHER=theirs\n", ""}) {
    saveOver(shown, meanwhile, {{appToken, "typed"}});
    expectNothingKept();
    machine.loop.advance(Seconds{2});
    machine.alerts.answer(0);  // closes the alert that the reconnect has shown
  }
}

TEST_F(SettingsOverOtherValues, SavesNothingIfTheCopyFails) {
  const std::string text = "X=1\r\nOPENAI_API_KEY=sk-1\r\n";
  machine.fileManager.keepError = "No space left on device";
  saveOver(text, text);
  machine.loop.advance(Seconds{2});
  EXPECT_EQ(newCalls(), (CallLog{std::string("write privately ") + previousFile, "present alert",
                                 "show alert 設定保存失敗"}));
  EXPECT_EQ(machine.alerts.shown.back(),
            errorWindow("設定保存失敗", std::string("無法把原有的設定保留為 ") + previousFile +
                                            "：No space left on device。設定沒有保存。"));
  EXPECT_EQ(env(), text);
  machine.alerts.answer(0);
  machine.fileManager.keepError.reset();
  machine.fileManager.writeError = "No space left on device";
  saveOver(text, text);
  EXPECT_EQ(machine.alerts.shown.back(), errorWindow("設定保存失敗", "No space left on device"));
  EXPECT_EQ(env(), text);
  EXPECT_TRUE(machine.notifications.posted.empty()) << "tells of no copy when the file is as it was";
  EXPECT_EQ(reconnects(), 0U);
}

TEST_F(Settings, SavingNamesCrLfAsTheFault) {
  env() = "KESTRUNE_APP_API_TOKEN=secret\r\nOPENAI_API_KEY=sk\r\n";
  open();
  machine.alerts.answer(save);
  machine.loop.settle();
  EXPECT_EQ(closeWindow(),
            errorWindow("設定保存失敗",
                        ".env 的換行字元不是 LF（例如 CR LF），「手機 App Token」讀到的值包含其他行的內容。"
                        "請把 .env 的換行改成 LF，再打開設定。設定沒有保存。"));
}

TEST_F(Settings, SavingRefusesLineEndsAndIllFormedUtf8) {
  env() = "KESTRUNE_APP_API_TOKEN=old";
  const auto expectRefused = [this](const char* key, const std::string& text, const std::string& reason) {
    leave(save, {{key, text}, {key == appToken ? openAIKey : appToken, "new"}});
    machine.loop.advance(Seconds{2});
    EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert 設定保存失敗"}));
    EXPECT_EQ(closeWindow(), errorWindow("設定保存失敗", reason + "設定沒有保存。"));
    EXPECT_EQ(env(), "KESTRUNE_APP_API_TOKEN=old");
  };
  for (const auto& [key, title] : {std::pair{apiURL, "手機連線 API URL"},
                                   {appToken, "手機 App Token"},
                                   {serviceToken, "Mac 本機 Token"},
                                   {projectRoot, "專案根目錄"},
                                   {openAIKey, "OpenAI API Key"}}) {
    const std::string field = std::string("「") + title + "」";
    for (const std::string end : {"\n", "\v", "\f", "\r", "\u0085", "\u2028", "\u2029", "\r\n"}) {
      expectRefused(key, "a" + end + "b", field + "的內容不能換行。");
    }
    for (const char* const bytes : {"\xFF", "caf\xE9", "\xE5\xB0", "\xED\xA0\x80"}) {
      expectRefused(key, bytes, field + "的內容不是有效的 UTF-8 文字。");
    }
  }
  EXPECT_EQ(reconnects(), 0U);
}

struct SilentAlerts final : Alerts {
  void present(AlertRequest request) override { requests.push_back(std::move(request)); }
  std::vector<AlertRequest> requests;
};

TEST_F(Settings, SavingLeavesKeysWithoutAField) {
  SilentAlerts face;
  Platform platform = platformWith(machine, {.alerts = &face});
  const auto another = std::make_shared<AppDelegate>(platform);
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=service\nKESTRUNE_APP_API_TOKEN=old";
  another->performAction("showSettings");
  face.requests.at(0).completion({save, {{appToken, "new"}}});
  EXPECT_EQ(env(), "KESTRUNE_MAC_SERVICE_TOKEN=service\nKESTRUNE_APP_API_TOKEN=new");
}

TEST_F(Settings, OpeningTheFileSavesNothing) {
  leave(openFile);
  EXPECT_EQ(newCalls(), CallLog{"open /home/u/backend/.env"});
  EXPECT_FALSE(machine.fileManager.files.contains(envFile));
  env() = "KESTRUNE_APP_API_TOKEN=old";
  leave(openFile, {{appToken, "new"}});
  machine.loop.advance(Seconds{2});
  EXPECT_EQ(newCalls(), CallLog{"open /home/u/backend/.env"});
  EXPECT_EQ(env(), "KESTRUNE_APP_API_TOKEN=old");
  EXPECT_EQ(machine.alerts.shown.size(), 2U);
}

TEST_F(Settings, CancellingDoesNothing) {
  env() = "KESTRUNE_APP_API_TOKEN=old";
  leave(cancel, {{appToken, "new\nline"}});
  EXPECT_EQ(newCalls(), CallLog{});
  open();
  newCalls();
  machine.alerts.answer(std::nullopt, {{appToken, "new"}});
  machine.loop.advance(Seconds{2});
  EXPECT_EQ(newCalls(), CallLog{});
  EXPECT_EQ(env(), "KESTRUNE_APP_API_TOKEN=old");
}

TEST_F(Settings, PairingDialogIsStackedOnTheSettings) {
  env() = "KESTRUNE_APP_API_TOKEN=opened";
  open();
  const std::pair<const char*, const char*> cases[] = {{"KESTRUNE_APP_API_TOKEN=pressed", "手機配對 QR"},
                                                       {"", "無法生成配對 QR"}};
  for (const auto& [text, message] : cases) {
    env() = text;
    machine.alerts.press("showPairingQR");
    env() = "KESTRUNE_APP_API_TOKEN=later";
    machine.loop.settle();
    EXPECT_EQ(machine.alerts.shown.back().messageText, message);
    newCalls();
    machine.alerts.answer(0);
    machine.loop.settle();
    EXPECT_EQ(newCalls(), CallLog{});
  }
  EXPECT_EQ(machine.images.messages,
            std::vector<std::string>{"kestrune://configure?apiUrl=https://relay.example.com&token=pressed"});
  EXPECT_EQ(machine.alerts.shown.size(), 3U);
  machine.alerts.answer(save, {{appToken, "unsaved"}});
  EXPECT_EQ(controller->loadEnvValue(appToken), "unsaved");
}

}  // namespace
}  // namespace kestrune::testing
