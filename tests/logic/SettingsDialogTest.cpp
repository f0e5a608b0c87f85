#include "tests/logic/SettingsTest.h"

namespace kestrune::testing {
namespace {

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

View fieldRow(const char* title, const char* key, const char* text, const char* placeholder,
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

TEST_F(Settings, DialogScrollsItsStack) {
  const std::weak_ptr<AppDelegate> weak = controller;
  choose("showSettings");
  EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert Kestrune 連線與桌面設定"}));
  const Alert dialog = machine.alerts.shown.back();
  EXPECT_EQ(dialog.target.lock(), controller);
  const View stack{.kind = ViewKind::stack,
                   .alignment = StackAlignment::leading,
                   .spacing = 10,
                   .insets = {.top = 10, .left = 12, .bottom = 10, .right = 12},
                   .children = items()};
  const View document{.kind = ViewKind::container, .width = 540, .children = {stack}};
  const View scroll{.kind = ViewKind::scroll, .width = 560, .height = 560, .children = {document}};
  EXPECT_EQ(dialog,
            (Alert{.style = AlertStyle::informational,
                   .messageText = "Kestrune 連線與桌面設定",
                   .informativeText = "這裡調整的是手機連線入口、Mac "
                                      "本機服務以及預設工作目錄。保存後會自動重新檢查連線。",
                   .buttons = {"保存並刷新", "打開 .env", "取消"},
                   .accessoryView =
                       View{.kind = ViewKind::container, .width = 560, .height = 560, .children = {scroll}},
                   .target = controller}));
  machine.alerts.answer(cancel);
  controller.reset();
  EXPECT_TRUE(weak.expired());
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
      fieldRow("手機連線 API URL", apiURL, "https://relay.example.com", "https://relay.example.com"),
      fieldRow("手機 App Token", appToken, "", "手機端 API Token"),
      fieldRow("Mac 本機 Token", serviceToken, "", "Mac 本機服務 Token"),
      sectionLabel("專案"),
      fieldRow("專案根目錄", projectRoot, "/home/u", "/home/u"),
      hint("專案根目錄用來限定手機端可瀏覽、讀取和展示的項目範圍。手機端新增項目只輸入名稱時，"
           "也會放到這個根目錄下。建議設為存放客戶項目的上層資料夾，例如 ~/APPtest 或你的工作區根目錄。",
           3),
      sectionLabel("語音輸入"),
      fieldRow("OpenAI API Key", openAIKey, "", "OpenAI API Key", ViewKind::secureTextField),
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

TEST_F(Settings, OpenDialogIsRaised) {
  open();
  choose("showSettings");
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_EQ(machine.alerts.raises, 1);
  machine.alerts.answer(cancel);
  open();
  EXPECT_EQ(machine.alerts.shown.size(), 2U);
  EXPECT_EQ(machine.alerts.raises, 1);
}

const std::map<std::string, std::string> defaultFields{{apiURL, "https://relay.example.com"},
                                                       {appToken, ""},
                                                       {serviceToken, ""},
                                                       {projectRoot, "/home/u"},
                                                       {openAIKey, ""}};

TEST_F(Settings, FieldsHaveDefaults) {
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

TEST_F(Settings, FieldsFallBackToLegacyKeys) {
  env() =
      "HALVASK_APP_API_TOKEN=app\nHALVASK_MAC_SERVICE_TOKEN=service\nHALVASK_PROJECT_ROOT=/old\n"
      "HALVASK_PUBLIC_API_URL=https://old.test\nHALVASK_OPENAI_API_KEY=sk-1\n";
  open();
  EXPECT_EQ(fields(), (std::map<std::string, std::string>{{apiURL, "https://relay.example.com"},
                                                          {appToken, "app"},
                                                          {serviceToken, "service"},
                                                          {projectRoot, "/old"},
                                                          {openAIKey, ""}}));
  machine.alerts.answer(cancel);
  for (const auto& key : keys) env() += key + "=\n";
  open();
  EXPECT_EQ(fields().size(), 5U);
  for (const auto& [key, text] : fields()) EXPECT_EQ(text, "") << key;
}

TEST_F(Settings, FileIsReadWhenTheDialogIsShown) {
  env() = "KESTRUNE_APP_API_TOKEN=early";
  choose("showChatGPTRemoteGuide");
  choose("showSettings");
  EXPECT_TRUE(machine.fileManager.asked.empty());
  env() = "KESTRUNE_APP_API_TOKEN=late";
  machine.alerts.answer(0);
  machine.loop.runMain();
  EXPECT_EQ(fields().at(appToken), "late");
}

}  // namespace
}  // namespace kestrune::testing
