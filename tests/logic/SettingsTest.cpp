#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

constexpr std::size_t save = 0;
constexpr std::size_t openFile = 1;
constexpr std::size_t cancel = 2;

constexpr auto apiURL = "KESTRUNE_PUBLIC_API_URL";
constexpr auto appToken = "KESTRUNE_APP_API_TOKEN";
constexpr auto serviceToken = "KESTRUNE_MAC_SERVICE_TOKEN";
constexpr auto projectRoot = "KESTRUNE_PROJECT_ROOT";
constexpr auto openAIKey = "OPENAI_API_KEY";
const std::vector<std::string> keys{apiURL, appToken, serviceToken, projectRoot, openAIKey};

View sectionLabel(const char* title) {
  return {.kind = ViewKind::label,
          .text = title,
          .fontSize = 12,
          .fontWeight = FontWeight::semibold,
          .textColor = TextColor::primary,
          .maximumLines = 1,
          .width = 500};
}

View hint(const char* text, int lines) {
  return {.kind = ViewKind::label,
          .text = text,
          .fontSize = 11,
          .fontWeight = FontWeight::regular,
          .textColor = TextColor::secondary,
          .lineBreak = LineBreak::wordWrap,
          .maximumLines = lines,
          .width = 500};
}

View row(const char* title, const char* key, const char* text, const char* placeholder,
         ViewKind kind = ViewKind::textField) {
  return {.kind = ViewKind::stack,
          .alignment = StackAlignment::leading,
          .spacing = 4,
          .children = {{.kind = ViewKind::label,
                        .text = title,
                        .fontSize = 12,
                        .fontWeight = FontWeight::medium,
                        .textColor = TextColor::secondary,
                        .maximumLines = 1},
                       {.kind = kind,
                        .identifier = key,
                        .text = text,
                        .placeholder = placeholder,
                        .accessibilityLabel = title,
                        .lineBreak = LineBreak::truncateMiddle,
                        .maximumLines = 1,
                        .width = 500}}};
}

struct Settings : ControllerTest {
  Settings() { makeStatusItem(); }

  const Alert& open() {
    choose("showSettings");
    return machine.alerts.shown.back();
  }
  /// The settings are opened and left by a button, with these texts in the fields that were edited, and
  /// everything happens that follows at once.
  void leave(std::size_t button, const std::map<std::string, std::string>& edited = {}) {
    open();
    newCalls();
    machine.alerts.answer(button, edited);
    machine.loop.settle();
  }

  /// The views that the dialog stacks.
  const std::vector<View>& items() const {
    return machine.alerts.shown.back().accessoryView->children.at(0).children.at(0).children.at(0).children;
  }
  /// What stands in the fields of the dialog that was shown last.
  std::map<std::string, std::string> fields() const {
    std::map<std::string, std::string> texts;
    for (const View& item : items()) {
      if (item.kind == ViewKind::stack) texts[item.children.at(1).identifier] = item.children.at(1).text;
    }
    return texts;
  }
};

// --- the dialog

TEST_F(Settings, DialogSaysWhatItIsForAndHasThreeButtons) {
  Alert words = open();
  words.accessoryView.reset();
  EXPECT_EQ(words, (Alert{.style = AlertStyle::informational,
                          .messageText = "Kestrune 連線與桌面設定",
                          .informativeText = "這裡調整的是手機連線入口、Mac "
                                             "本機服務以及預設工作目錄。保存後會自動重新檢查連線。",
                          .buttons = {"保存並刷新", "打開 .env", "取消"}}));
}

TEST_F(Settings, DialogStacksFourteenItems) {
  open();
  const std::vector<View> expected{
      sectionLabel("手機配對"),
      hint("第一次把手機接到這台 Mac 時，先在菜單欄顯示配對 QR，再用 iPhone "
           "系統相機掃描即可自動帶入連線資訊。",
           2),
      {.kind = ViewKind::button, .text = "顯示手機配對 QR", .action = "showPairingQR", .width = 220},
      sectionLabel("連線"),
      row("手機連線 API URL", apiURL, "https://relay.example.com", "https://relay.example.com"),
      row("手機 App Token", appToken, "", "手機端 API Token"),
      row("Mac 本機 Token", serviceToken, "", "Mac 本機服務 Token"),
      sectionLabel("專案"),
      row("專案根目錄", projectRoot, "/home/u", "/home/u"),
      hint("專案根目錄用來限定手機端可瀏覽、讀取和展示的項目範圍。手機端新增項目只輸入名稱時，"
           "也會放到這個根目錄下。建議設為存放客戶項目的上層資料夾，例如 ~/APPtest 或你的工作區根目錄。",
           3),
      sectionLabel("語音輸入"),
      row("OpenAI API Key", openAIKey, "", "OpenAI API Key", ViewKind::secureTextField),
      hint("OPENAI_API_KEY 只用在手機端的語音轉文字。桌面 Codex "
           "會話的模型、推理級別與權限仍以桌面端目前設定為準。",
           3),
      hint("建議分開管理兩個 Token：手機 App 用 KESTRUNE_APP_API_TOKEN；Mac 本機服務用 "
           "KESTRUNE_MAC_SERVICE_TOKEN。",
           2),
  };
  ASSERT_EQ(items().size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(items()[i], expected[i]) << i + 1;
}

TEST_F(Settings, DialogScrollsItsStackInAWindowOfFixedSize) {
  const View view = *open().accessoryView;
  EXPECT_EQ(
      view,
      (View{.kind = ViewKind::container,
            .width = 560,
            .height = 560,
            .children = {
                {.kind = ViewKind::scroll,
                 .width = 560,
                 .height = 560,
                 .children = {{.kind = ViewKind::container,
                               .width = 540,
                               .children = {{.kind = ViewKind::stack,
                                             .alignment = StackAlignment::leading,
                                             .spacing = 10,
                                             .insets = {.top = 10, .left = 12, .bottom = 10, .right = 12},
                                             .children = items()}}}}}}}));
}

TEST_F(Settings, DialogActsOnTheControllerWithoutKeepingItAliveOnceItIsClosed) {
  const std::weak_ptr<AppDelegate> weak = controller;
  EXPECT_EQ(open().target.lock(), controller);
  machine.alerts.answer(cancel);
  controller.reset();
  EXPECT_TRUE(weak.expired());
}

TEST_F(Settings, DialogIsAskedForAndNothingElseHappens) {
  choose("showSettings");
  EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert Kestrune 連線與桌面設定"}));
  EXPECT_TRUE(machine.userDefaults.values.empty());
}

TEST_F(Settings, DialogThatIsOpenIsBroughtToTheFront) {
  open();
  choose("showSettings");
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_EQ(machine.alerts.raises, 1);
  machine.alerts.answer(cancel);
  open();
  EXPECT_EQ(machine.alerts.shown.size(), 2U);
  EXPECT_EQ(machine.alerts.raises, 1);
}

// --- what the fields show

TEST_F(Settings, FieldsShowWhatTheFileHolds) {
  env() =
      "OPENAI_API_KEY=sk-1\nKESTRUNE_PROJECT_ROOT=/home/u/專案\nKESTRUNE_MAC_SERVICE_TOKEN= service \n"
      "KESTRUNE_APP_API_TOKEN=\"app\"\nKESTRUNE_PUBLIC_API_URL=https://relay.test\n";
  open();
  EXPECT_EQ(fields(), (std::map<std::string, std::string>{{apiURL, "https://relay.test"},
                                                          {appToken, "\"app\""},
                                                          {serviceToken, "service"},
                                                          {projectRoot, "/home/u/專案"},
                                                          {openAIKey, "sk-1"}}));
}

const std::map<std::string, std::string> defaultFields{{apiURL, "https://relay.example.com"},
                                                       {appToken, ""},
                                                       {serviceToken, ""},
                                                       {projectRoot, "/home/u"},
                                                       {openAIKey, ""}};

TEST_F(Settings, FieldsShowTheirDefaultsWhereThereIsNothingToRead) {
  open();
  EXPECT_EQ(fields(), defaultFields);
  machine.alerts.answer(cancel);
  for (const char* const text : {"", "KESTRUNE_APP_API_TOKEN=a\nX=\xFF"}) {
    env() = text;
    open();
    EXPECT_EQ(fields(), defaultFields);
    machine.alerts.answer(cancel);
  }
  machine.fileManager.files.clear();
  machine.fileManager.unreadable.insert(envFile);
  open();
  EXPECT_EQ(fields(), defaultFields);
}

TEST_F(Settings, FieldsShowLegacyKeysWhereTheCurrentOnesAreAbsent) {
  env() =
      "HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=service\nHALVASK_PROJECT_ROOT=/old\n"
      "HALVASK_PUBLIC_API_URL=https://old.test\nHALVASK_OPENAI_API_KEY=sk-1";
  open();
  EXPECT_EQ(fields(), (std::map<std::string, std::string>{{apiURL, "https://relay.example.com"},
                                                          {appToken, "app"},
                                                          {serviceToken, "service"},
                                                          {projectRoot, "/old"},
                                                          {openAIKey, ""}}));
}

TEST_F(Settings, FieldsShowCurrentKeysThatAreEmptyAsEmpty) {
  for (const auto& key : keys) env() += key + "=\n";
  env() += "HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=service\nHALVASK_PROJECT_ROOT=/old\n";
  open();
  for (const auto& [key, text] : fields()) EXPECT_EQ(text, "") << key;
  EXPECT_EQ(fields().size(), 5U);
}

TEST_F(Settings, FieldsAreReadInTheirOrderAndTheLegacyKeyRightAfterTheCurrentOne) {
  env();
  int reads = 0;
  machine.fileManager.whenRead = [&] {
    const std::string number = std::to_string(++reads);
    env() = "KESTRUNE_PUBLIC_API_URL=" + number + "\nOPENAI_API_KEY=" + number;
    for (const char* const key : {"APP_API_TOKEN", "MAC_SERVICE_TOKEN", "PROJECT_ROOT"}) {
      env() += std::string("\nHALVASK_") + key + "=" + number;
    }
  };
  open();
  EXPECT_EQ(fields(),
            (std::map<std::string, std::string>{
                {apiURL, "1"}, {appToken, "3"}, {serviceToken, "5"}, {projectRoot, "7"}, {openAIKey, "8"}}));
  EXPECT_EQ(reads, 8);
}

TEST_F(Settings, LegacyKeysAreNotReadWhenTheCurrentOnesAreThere) {
  for (const auto& key : keys) env() += key + "=x\n";
  open();
  EXPECT_EQ(machine.fileManager.asked, std::vector<std::string>(5, envFile));
}

TEST_F(Settings, FileIsReadWhenTheDialogsTurnHasCome) {
  env() = "KESTRUNE_APP_API_TOKEN=early";
  choose("showChatGPTRemoteGuide");
  choose("showSettings");
  EXPECT_TRUE(machine.fileManager.asked.empty());
  env() = "KESTRUNE_APP_API_TOKEN=late";
  machine.alerts.answer(0);
  machine.loop.runMain();
  EXPECT_EQ(fields().at(appToken), "late");
}

TEST_F(Settings, EveryOpeningReadsTheFileAnew) {
  env() = "KESTRUNE_APP_API_TOKEN=a";
  leave(cancel, {{appToken, "edited"}});
  env() = "KESTRUNE_APP_API_TOKEN=b";
  open();
  EXPECT_EQ(fields().at(appToken), "b");
}

// --- saving

TEST_F(Settings, SavingWritesTheFieldsUnderTheCurrentKeys) {
  env() = "KESTRUNE_APP_API_TOKEN=old\n# comment\nOPENAI_API_KEY=sk-1\n";
  leave(save, {{apiURL, "https://relay.test"}, {appToken, "new"}, {serviceToken, "s"}, {projectRoot, "/p"}});
  EXPECT_EQ(env(),
            "KESTRUNE_APP_API_TOKEN=new\n# comment\nOPENAI_API_KEY=sk-1\n\nKESTRUNE_MAC_SERVICE_TOKEN=s\n\n"
            "KESTRUNE_PROJECT_ROOT=/p\n\nKESTRUNE_PUBLIC_API_URL=https://relay.test");
}

TEST_F(Settings, SavingAtOnceWritesTheDefaults) {
  leave(save);
  EXPECT_EQ(env(),
            "KESTRUNE_APP_API_TOKEN=\n\nKESTRUNE_MAC_SERVICE_TOKEN=\n\nKESTRUNE_PROJECT_ROOT=/home/u\n\n"
            "KESTRUNE_PUBLIC_API_URL=https://relay.example.com\n\nOPENAI_API_KEY=");
}

TEST_F(Settings, SavingKeepsTheKeyOfAFieldThatWasEmptied) {
  for (const auto& key : keys) env() += key + "=x\n";
  leave(save, {{apiURL, ""}, {appToken, " "}, {serviceToken, ""}, {projectRoot, "\t"}, {openAIKey, "\n"}});
  EXPECT_EQ(env(),
            "KESTRUNE_PUBLIC_API_URL=\nKESTRUNE_APP_API_TOKEN=\nKESTRUNE_MAC_SERVICE_TOKEN=\n"
            "KESTRUNE_PROJECT_ROOT=\nOPENAI_API_KEY=\n");
}

TEST_F(Settings, SavingWritesAValueOfALegacyKeyUnderTheCurrentOneAndLeavesTheLegacyLine) {
  env() = "HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=service\nHALVASK_PROJECT_ROOT=/old";
  leave(save);
  EXPECT_EQ(env(),
            "HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=service\nHALVASK_PROJECT_ROOT=/old\n\n"
            "KESTRUNE_APP_API_TOKEN=app\n\nKESTRUNE_MAC_SERVICE_TOKEN=service\n\n"
            "KESTRUNE_PROJECT_ROOT=/old\n\nKESTRUNE_PUBLIC_API_URL=https://relay.example.com\n\n"
            "OPENAI_API_KEY=");
}

TEST_F(Settings, SavingTrimsEveryField) {
  std::map<std::string, std::string> edited;
  for (const auto& key : keys) {
    env() += key + "=\n";
    edited[key] = " \t\n\u3000a  b\u00A0\r\n ";
  }
  leave(save, edited);
  for (const auto& key : keys) EXPECT_NE(env().find(key + "=a  b\n"), std::string::npos) << key;
}

TEST_F(Settings, SavingWritesLongValuesWhole) {
  const std::string value(5000, 'x');
  leave(save, {{appToken, value}});
  EXPECT_EQ(controller->loadEnvValue(appToken), value);
}

TEST_F(Settings, SavingIsFollowedByAReconnectWithItsWindow) {
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
}

TEST_F(Settings, SavingReconnectsWhateverTheModeAndAutoConnect) {
  setAutoConnect(false);
  controller->setOfficialConnectionMode(true);
  leave(save);
  EXPECT_EQ(reconnects(), 1U);
  EXPECT_FALSE(controller->isAutoConnectEnabled());
}

TEST_F(Settings, SavingThatFailsShowsWhyAndReconnectsNothing) {
  machine.fileManager.writeError = "Read-only file system";
  env() = "KESTRUNE_APP_API_TOKEN=old";
  leave(save, {{appToken, "new"}});
  machine.loop.advance(Seconds{2});
  EXPECT_EQ(newCalls(), (CallLog{"write /home/u/backend/.env", "present alert", "show alert 設定保存失敗"}));
  EXPECT_EQ(machine.alerts.shown.back(), errorWindow("設定保存失敗", "Read-only file system"));
  EXPECT_EQ(env(), "KESTRUNE_APP_API_TOKEN=old");
}

TEST_F(Settings, SavingOverAFileThatCannotBeReadKeepsThatOneFirst) {
  machine.fileManager.unreadable.insert(envFile);
  leave(save, {{appToken, "new"}});
  const CallLog calls = newCalls();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls[0], "keep unreadable /home/u/backend/.env");
  EXPECT_EQ(calls[1], "write /home/u/backend/.env");
  EXPECT_EQ(reconnects(), 1U);
}

TEST_F(Settings, SavingOverAFileThatCannotBeKeptShowsWhyAndWritesNothing) {
  machine.fileManager.unreadable.insert(envFile);
  machine.fileManager.keepError = "Permission denied";
  leave(save, {{appToken, "new"}});
  machine.loop.advance(Seconds{2});
  EXPECT_EQ(newCalls(),
            (CallLog{"keep unreadable /home/u/backend/.env", "present alert", "show alert 設定保存失敗"}));
  EXPECT_EQ(machine.alerts.shown.back(), errorWindow("設定保存失敗", "Permission denied"));
}

// --- values that the dialog neither showed nor writes

struct SettingsOverOtherValues : Settings {
  static constexpr auto previousFile = "/home/u/backend/.env.previous";

  /// The file changes while the dialog is open, which is then saved.
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
    EXPECT_EQ(machine.notifications.posted[0].title, "原有設定已保留");
    EXPECT_EQ(machine.notifications.posted[0].body,
              std::string("設定視窗沒有顯示的值已被覆蓋，原檔案保留在 ") + previousFile);
    EXPECT_EQ(reconnects(), 1U);
  }
  void expectNothingKept() {
    EXPECT_FALSE(machine.fileManager.files.contains(previousFile));
    EXPECT_TRUE(machine.notifications.posted.empty());
    EXPECT_EQ(newCalls().at(0), "write /home/u/backend/.env");
  }
};

TEST_F(SettingsOverOtherValues, KeepsAFileWithLineEndsThatTheReaderDoesNotSee) {
  const std::string text = "X=1\r\nKESTRUNE_APP_API_TOKEN=app\r\nOPENAI_API_KEY=sk-1\r\n";
  saveOver(text, text);
  expectKept(text);
  EXPECT_NE(env().find("\nKESTRUNE_APP_API_TOKEN=\n"), std::string::npos);
}

TEST_F(SettingsOverOtherValues, KeepsAFileThatCouldNotBeReadBefore) {
  saveOver("KESTRUNE_APP_API_TOKEN=app\nX=\xFF", "KESTRUNE_APP_API_TOKEN=app\n");
  expectKept("KESTRUNE_APP_API_TOKEN=app\n");
}

TEST_F(SettingsOverOtherValues, KeepsAFileThatAnotherProgramChangedMeanwhile) {
  saveOver("KESTRUNE_APP_API_TOKEN=shown\n", "KESTRUNE_APP_API_TOKEN=theirs\n", {{appToken, "typed"}});
  expectKept("KESTRUNE_APP_API_TOKEN=theirs\n");
}

TEST_F(SettingsOverOtherValues, KeepsTheSecondValueOfAKey) {
  const std::string text = "OPENAI_API_KEY=first\nOPENAI_API_KEY=second\n";
  saveOver(text, text);
  expectKept(text);
}

TEST_F(SettingsOverOtherValues, KeepsNothingThatTheUserSawOrThatStays) {
  const std::string shown = "KESTRUNE_APP_API_TOKEN= shown \nOPENAI_API_KEY=\nX=1\n";
  for (const char* const meanwhile :
       {shown.c_str(), "KESTRUNE_APP_API_TOKEN=typed\n", "KESTRUNE_APP_API_TOKEN=\n",
        " KESTRUNE_APP_API_TOKEN=indented\n", "KESTRUNE_APP_API_TOKEN=shown\nX=theirs\n",
        "HALVASK_APP_API_TOKEN=theirs\nOTHER=theirs\n", ""}) {
    saveOver(shown, meanwhile, {{appToken, "typed"}});
    expectNothingKept();
    machine.loop.advance(Seconds{2});
    machine.alerts.answer(0);  // the window of the reconnect
  }
}

TEST_F(SettingsOverOtherValues, SavesNothingWithoutACopy) {
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
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(SettingsOverOtherValues, TellsOfNoCopyWhenTheFileItselfCannotBeWritten) {
  const std::string text = "X=1\r\nOPENAI_API_KEY=sk-1\r\n";
  machine.fileManager.writeError = "No space left on device";
  saveOver(text, text);
  EXPECT_EQ(machine.alerts.shown.back(), errorWindow("設定保存失敗", "No space left on device"));
  EXPECT_EQ(env(), text);
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(Settings, SavingRefusesAFieldOfMoreThanOneLine) {
  struct Field {
    const char* key;
    const char* title;
  };
  const Field all[] = {{apiURL, "手機連線 API URL"},
                       {appToken, "手機 App Token"},
                       {serviceToken, "Mac 本機 Token"},
                       {projectRoot, "專案根目錄"},
                       {openAIKey, "OpenAI API Key"}};
  env() = "KESTRUNE_APP_API_TOKEN=old";
  for (const Field& field : all) {
    for (const char* const end : {"\n", "\v", "\f", "\r", "\u0085", "\u2028", "\u2029", "\r\n"}) {
      leave(save, {{field.key, std::string("a") + end + "b"}});
      machine.loop.advance(Seconds{2});
      EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert 設定保存失敗"}));
      EXPECT_EQ(
          machine.alerts.shown.back(),
          errorWindow("設定保存失敗", std::string("「") + field.title + "」的內容不能換行。設定沒有保存。"));
      machine.alerts.answer(0);
      EXPECT_EQ(env(), "KESTRUNE_APP_API_TOKEN=old");
    }
  }
  EXPECT_EQ(reconnects(), 0U);
}

TEST_F(Settings, BytesThatAreNoTextAreRefusedBeforeTheyMakeTheFileUnreadable) {
  env() = "KESTRUNE_APP_API_TOKEN=old";
  for (const char* const bytes : {"\xFF", "caf\xE9", "\xE5\xB0", "\xED\xA0\x80"}) {
    leave(save, {{appToken, "new"}, {projectRoot, bytes}});
    machine.loop.advance(Seconds{2});
    EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert 設定保存失敗"}));
    EXPECT_EQ(machine.alerts.shown.back(),
              errorWindow("設定保存失敗", "「專案根目錄」的內容不是有效的 UTF-8 文字。設定沒有保存。"));
    machine.alerts.answer(0);
    EXPECT_EQ(env(), "KESTRUNE_APP_API_TOKEN=old");
  }
  EXPECT_EQ(reconnects(), 0U);
}

/// A face that shows nothing and waits for its answers.
struct SilentAlerts final : Alerts {
  void present(AlertRequest request) override { requests.push_back(std::move(request)); }
  std::vector<AlertRequest> requests;
};

TEST_F(Settings, SavingLeavesAFieldThatTheFaceDoesNotKnowAsItIs) {
  SilentAlerts face;
  Platform platform = platformWith(machine, {.alerts = &face});
  const auto another = std::make_shared<AppDelegate>(platform);
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=service\nKESTRUNE_APP_API_TOKEN=old";
  another->performAction("showSettings");
  face.requests.at(0).completion({save, {{appToken, "new"}}});
  EXPECT_EQ(env(), "KESTRUNE_MAC_SERVICE_TOKEN=service\nKESTRUNE_APP_API_TOKEN=new");
}

// --- the other buttons

TEST_F(Settings, OpeningTheFileSavesNothing) {
  env() = "KESTRUNE_APP_API_TOKEN=old";
  leave(openFile, {{appToken, "new"}});
  machine.loop.advance(Seconds{2});
  EXPECT_EQ(newCalls(), CallLog{"open /home/u/backend/.env"});
  EXPECT_EQ(env(), "KESTRUNE_APP_API_TOKEN=old");
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
}

TEST_F(Settings, OpeningAFileThatIsMissingSaysNothing) {
  leave(openFile);
  EXPECT_EQ(newCalls(), CallLog{"open /home/u/backend/.env"});
  EXPECT_TRUE(machine.fileManager.files.empty());
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

// --- the pairing picture

TEST_F(Settings, PairingDialogStandsOnTopAndShowsWhatIsSaved) {
  env() = "KESTRUNE_PUBLIC_API_URL=https://relay.test\nKESTRUNE_APP_API_TOKEN=saved";
  open();
  machine.alerts.press("showPairingQR");
  machine.loop.settle();
  ASSERT_EQ(machine.alerts.shown.size(), 2U);
  EXPECT_EQ(machine.alerts.shown.back().messageText, "手機配對 QR");
  EXPECT_EQ(machine.qrCodes.messages,
            std::vector<std::string>{"kestrune://configure?apiUrl=https://relay.test&token=saved"});
  newCalls();
  machine.alerts.answer(0);
  machine.loop.settle();
  EXPECT_EQ(newCalls(), CallLog{});
  machine.alerts.answer(save, {{appToken, "unsaved"}});
  EXPECT_EQ(controller->loadEnvValue(appToken), "unsaved");
}

TEST_F(Settings, PairingButtonReadsTheFileWhenItIsPressed) {
  env() = "KESTRUNE_APP_API_TOKEN=opened";
  open();
  env() = "KESTRUNE_APP_API_TOKEN=pressed";
  machine.alerts.press("showPairingQR");
  env() = "KESTRUNE_APP_API_TOKEN=later";
  machine.loop.settle();
  EXPECT_EQ(machine.qrCodes.messages,
            std::vector<std::string>{"kestrune://configure?apiUrl=https://relay.example.com&token=pressed"});
}

TEST_F(Settings, PairingFailureStandsOnTopToo) {
  open();
  machine.alerts.press("showPairingQR");
  machine.loop.settle();
  ASSERT_EQ(machine.alerts.shown.size(), 2U);
  EXPECT_EQ(machine.alerts.shown.back().messageText, "無法生成配對 QR");
  machine.alerts.answer(0);
  newCalls();
  machine.alerts.answer(cancel);
  machine.loop.settle();
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(Settings, PairingDialogMayBeAskedForAgain) {
  env() = "KESTRUNE_APP_API_TOKEN=a";
  open();
  for (int time = 0; time < 2; ++time) {
    machine.alerts.press("showPairingQR");
    machine.loop.settle();
    machine.alerts.answer(0);
  }
  EXPECT_EQ(machine.alerts.shown.size(), 3U);
}

}  // namespace
}  // namespace kestrune::testing
