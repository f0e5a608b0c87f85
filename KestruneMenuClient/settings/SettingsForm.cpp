#include "KestruneMenuClient/settings/SettingsForm.h"

#include <utility>

#include "text/Text.h"

namespace kestrune {

namespace {

constexpr double dialogWidth = 560;
constexpr double documentWidth = 540;
constexpr double rowWidth = 500;

struct SettingsRow {
  const char* title;
  const char* key;
};
constexpr SettingsRow apiURLRow{"手機連線 API URL", env::publicAPIURL};
constexpr SettingsRow appTokenRow{"手機 App Token", env::appAPIToken};
constexpr SettingsRow serviceTokenRow{"Mac 本機 Token", env::macServiceToken};
constexpr SettingsRow projectRootRow{"專案根目錄", env::projectRoot};
constexpr SettingsRow openAIKeyRow{"OpenAI API Key", env::openAIAPIKey};
constexpr SettingsRow settingsRows[] = {apiURLRow, appTokenRow, serviceTokenRow, projectRootRow,
                                        openAIKeyRow};

View makeSettingsSectionLabel(const char* title) {
  return {.kind = ViewKind::label,
          .text = title,
          .fontSize = 12,
          .fontWeight = FontWeight::semibold,
          .maximumLines = 1,
          .width = rowWidth};
}

View makeSettingsHint(const char* text, int lines = 2) {
  return {.kind = ViewKind::label,
          .text = text,
          .fontSize = 11,
          .textColor = TextColor::secondary,
          .maximumLines = lines,
          .width = rowWidth};
}

View makeSettingsField(const std::string& text, const std::string& placeholder) {
  return {.kind = ViewKind::textField,
          .text = text,
          .placeholder = placeholder,
          .lineBreak = LineBreak::truncateMiddle,
          .maximumLines = 1};
}

View makeSecureSettingsField(const std::string& text, const std::string& placeholder) {
  View field = makeSettingsField(text, placeholder);
  field.kind = ViewKind::secureTextField;
  return field;
}

View makeSettingsRow(const SettingsRow& row, View field) {
  field.identifier = row.key;
  field.width = rowWidth;
  field.accessibilityLabel = row.title;
  View label{.kind = ViewKind::label,
             .text = row.title,
             .fontSize = 12,
             .fontWeight = FontWeight::medium,
             .textColor = TextColor::secondary,
             .maximumLines = 1};
  return {.kind = ViewKind::stack, .spacing = 4, .children = {std::move(label), std::move(field)}};
}

View makeSettingsButton(const char* title, const char* action) {
  return {.kind = ViewKind::button, .text = title, .action = action, .width = 220};
}

}  // namespace

Alert makeSettingsAlert(const EnvValues& values, const std::string& home) {
  const auto value = [&values](const SettingsRow& row) { return values.at(row.key); };
  View stack{
      .kind = ViewKind::stack, .spacing = 10, .insets = {.top = 10, .left = 12, .bottom = 10, .right = 12}};
  stack.children = {
      makeSettingsSectionLabel("手機配對"),
      makeSettingsHint("第一次把手機接到這台 Mac 時，先在菜單欄顯示配對 QR，再用 iPhone "
                       "系統相機掃描即可自動帶入連線資訊。"),
      makeSettingsButton("顯示手機配對 QR", "showPairingQR"),
      makeSettingsSectionLabel("連線"),
      makeSettingsRow(apiURLRow, makeSettingsField(value(apiURLRow), env::placeholderPublicAPIURL)),
      makeSettingsRow(appTokenRow, makeSettingsField(value(appTokenRow), "手機端 API Token")),
      makeSettingsRow(serviceTokenRow, makeSettingsField(value(serviceTokenRow), "Mac 本機服務 Token")),
      makeSettingsSectionLabel("專案"),
      makeSettingsRow(projectRootRow, makeSettingsField(value(projectRootRow), home)),
      makeSettingsHint(
          "專案根目錄用來限定手機端可瀏覽、讀取和展示的項目範圍。手機端新增項目只輸入名稱時，也會放到這個"
          "根目錄下。建議設為存放客戶項目的上層資料夾，例如 ~/APPtest 或你的工作區根目錄。",
          3),
      makeSettingsSectionLabel("語音輸入"),
      makeSettingsRow(openAIKeyRow, makeSecureSettingsField(value(openAIKeyRow), "OpenAI API Key")),
      makeSettingsHint("OPENAI_API_KEY 只用在手機端的語音轉文字。桌面 Codex "
                       "會話的模型、推理級別與權限仍以桌面端目前設定為準。",
                       3),
      makeSettingsHint("建議分開管理兩個 Token：手機 App 用 KESTRUNE_APP_API_TOKEN；Mac 本機服務用 "
                       "KESTRUNE_MAC_SERVICE_TOKEN。"),
  };
  // Set no height for `document`: it is then as high as its content, and `scroll` scrolls it.
  View document{.kind = ViewKind::container, .width = documentWidth, .children = {std::move(stack)}};
  View scroll{.kind = ViewKind::scroll,
              .width = dialogWidth,
              .height = dialogWidth,
              .children = {std::move(document)}};
  return {
      .style = AlertStyle::informational,
      .messageText = "Kestrune 連線與桌面設定",
      .informativeText = "這裡調整的是手機連線入口、Mac 本機服務以及預設工作目錄。保存後會自動重新檢查連線。",
      .buttons = {"保存並刷新", "打開 .env", "取消"},
      .accessoryView = View{.kind = ViewKind::container,
                            .width = dialogWidth,
                            .height = dialogWidth,
                            .children = {std::move(scroll)}}};
}

EnvValues settingsOf(const AlertAnswer& answer) {
  EnvValues values;
  for (const auto& row : settingsRows) {
    const auto field = answer.fields.find(row.key);
    if (field != answer.fields.end()) values[row.key] = std::string(trimmed(field->second));
  }
  return values;
}

std::optional<std::string> faultOfSettings(const EnvValues& values, const EnvValues& shown) {
  for (const auto& row : settingsRows) {
    const auto found = values.find(row.key);
    if (found == values.end()) continue;
    const std::string title = "「" + std::string(row.title) + "」";
    // Ill-formed UTF-8 would make `EnvFile` reject the whole file.
    if (!isValidUtf8(found->second)) return title + "的內容不是有效的 UTF-8 文字。設定沒有保存。";
    // A line end inside the value would split it into two lines of .env.
    if (!EnvFile::holdsLineEnd(found->second)) continue;
    const auto before = shown.find(row.key);
    if (before == shown.end() || !EnvFile::holdsLineEnd(trimmed(before->second)))
      return title + "的內容不能換行。設定沒有保存。";
    // The value already contained a line end when it was read from .env. `EnvFile::value` ends a value only
    // at an LF that does not follow a CR, so .env has line ends other than LF, such as CR LF.
    return ".env 的換行字元不是 LF（例如 CR LF），" + title +
           "讀到的值包含其他行的內容。請把 .env 的換行改成 LF，再打開設定。設定沒有保存。";
  }
  return std::nullopt;
}

}  // namespace kestrune
