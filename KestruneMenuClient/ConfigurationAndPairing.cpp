#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/settings/EnvKeys.h"
#include "KestruneMenuClient/Text.h"

namespace kestrune {

namespace {

/// The lines as the reader of .env sees them: CR LF is one character that ends no line.
std::vector<std::string_view> linesForReading(std::string_view text) {
  std::vector<std::string_view> lines;
  std::size_t begin = 0;
  for (std::size_t at = 0; at <= text.size(); ++at) {
    const bool ends = at == text.size() || (text[at] == '\n' && (at == 0 || text[at - 1] != '\r'));
    if (!ends) continue;
    if (at > begin) lines.push_back(text.substr(begin, at - begin));
    begin = at + 1;
  }
  return lines;
}

/// The length of the line separator that `text` begins with; 0 when it begins with none. CR LF is two.
std::size_t separatorLength(std::string_view text) {
  if (text.front() >= '\n' && text.front() <= '\r') return 1;
  for (const std::string_view separator : {"\u0085", "\u2028", "\u2029"}) {
    if (text.starts_with(separator)) return separator.size();
  }
  return 0;
}

/// The lines as the writer of .env sees them: every separator counts by itself, and empty lines are kept.
std::vector<std::string> linesForWriting(std::string_view text) {
  std::vector<std::string> lines(1);
  while (!text.empty()) {
    const std::size_t length = separatorLength(text);
    if (length > 0) {
      lines.emplace_back();
    } else {
      lines.back() += text.front();
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return lines;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (std::size_t i = 0; i < lines.size(); ++i) text += (i > 0 ? "\n" : "") + lines[i];
  return text;
}

bool isAllowedInQueryValue(char character) {
  static constexpr std::string_view marks = "-._~!$'()*,;:@/";
  return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
         (character >= '0' && character <= '9') || marks.find(character) != std::string_view::npos;
}

std::optional<std::string> asText(std::optional<std::string> bytes) {
  return bytes && isValidUtf8(*bytes) ? std::move(bytes) : std::nullopt;
}

/// Any of the characters that end a line for some reader of .env.
bool holdsLineEnd(const std::string& text) {
  return linesForWriting(text).size() > 1;
}

constexpr double dialogWidth = 560;
constexpr double documentWidth = 540;
constexpr double rowWidth = 500;
constexpr double buttonWidth = 220;
constexpr auto settingsIdentifier = "settings";

/// One row of the settings dialog: its title and the key that it is kept under.
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

}  // namespace

// --- .env store

std::string AppDelegate::envPath() const {
  return repoPath + "/.env";
}

std::optional<std::string> AppDelegate::loadEnvValue(std::string_view key) const {
  const auto text = asText(platform.fileManager.contents(envPath()));
  if (!text) return std::nullopt;
  const std::string prefix = std::string(key) + "=";
  for (const std::string_view line : linesForReading(*text)) {
    if (line.starts_with(prefix)) return std::string(trimmed(line.substr(prefix.size())));
  }
  return std::nullopt;
}

std::optional<std::string> AppDelegate::loadEnvValue(const char* key, const char* legacyKey) const {
  auto value = loadEnvValue(key);
  return value ? std::move(value) : loadEnvValue(legacyKey);
}

OperationResult AppDelegate::saveEnvValues(const std::map<std::string, std::string>& values) {
  FileManager& files = platform.fileManager;
  const std::string path = envPath();
  std::vector<std::string> lines;
  if (const auto text = asText(files.contents(path))) {
    lines = linesForWriting(*text);
  } else {
    // What is about to be replaced could not be read, but may be all that the user has.
    if (files.fileExists(path)) {
      if (auto failure = files.keepUnreadable(path)) return {false, std::move(*failure)};
    }
    const std::string templatePath = repoPath + "/.env.example";
    if (files.fileExists(templatePath)) {
      if (const auto seed = asText(files.contents(templatePath))) lines = linesForWriting(*seed);
    }
  }

  std::set<std::string> written;
  for (auto& line : lines) {
    const auto equals = line.find('=');
    if (equals == std::string::npos) continue;
    const auto value = values.find(line.substr(0, equals));
    if (value == values.end()) continue;
    line = value->first + "=" + value->second;
    written.insert(value->first);
  }
  for (const auto& [key, value] : values) {
    if (written.contains(key)) continue;
    if (!lines.empty() && !lines.back().empty()) lines.emplace_back();
    lines.push_back(key + "=" + value);
  }
  if (auto failure = files.writeAtomically(path, joined(lines))) return {false, std::move(*failure)};
  return {true, "設定已保存到 " + path};
}

// --- pairing link and picture

std::string AppDelegate::percentEncodeQueryValue(std::string_view value) {
  static constexpr std::string_view digits = "0123456789ABCDEF";
  std::string encoded;
  for (const char character : value) {
    if (isAllowedInQueryValue(character)) {
      encoded += character;
    } else {
      const auto byte = static_cast<unsigned char>(character);
      encoded += {'%', digits[byte >> 4], digits[byte & 15]};
    }
  }
  return encoded;
}

std::string AppDelegate::publicAPIURL() const {
  return loadEnvValue(env::publicAPIURL).value_or(env::placeholderPublicAPIURL);
}

std::optional<std::string> AppDelegate::makePairingURL() const {
  return pairingURL(publicAPIURL());
}

std::optional<std::string> AppDelegate::pairingURL(const std::string& apiURL) const {
  const std::string chosen = loadEnvValue(env::appAPIToken, env::legacyAppAPIToken).value_or("");
  const std::string_view token = trimmed(chosen);
  if (token.empty()) return std::nullopt;
  return "kestrune://configure?apiUrl=" + percentEncodeQueryValue(apiURL) +
         "&token=" + percentEncodeQueryValue(token);
}

ImageRef AppDelegate::makeQRCodeImage(const std::string& text, double size) const {
  auto symbol = platform.qrCodes.generate(text);
  if (!symbol) return nullptr;
  return std::make_shared<Image>(
      Image{.width = size, .height = size, .isTemplate = false, .bitmaps = {std::move(*symbol)}});
}

void AppDelegate::showPairingQR() {
  static constexpr auto failureTitle = "無法生成配對 QR";
  static constexpr double imageSize = 260;
  // Once for both: what stands below the code is what is in it.
  const std::string apiURL = publicAPIURL();
  const auto link = pairingURL(apiURL);
  if (!link) {
    showResultWindow(failureTitle, "請先在 .env 設定 KESTRUNE_APP_API_TOKEN，然後重新整理連線。", true);
    return;
  }
  const ImageRef image = makeQRCodeImage(*link);
  if (!image) {
    showResultWindow(failureTitle, "QR 圖片生成失敗，請稍後再試。", true);
    return;
  }
  View picture{.kind = ViewKind::image,
               .accessibilityLabel = "手機配對 QR",
               .width = imageSize,
               .height = imageSize,
               .image = image};
  View address{.kind = ViewKind::label,
               .text = "API URL：" + apiURL,
               .fontSize = 11,
               .textColor = TextColor::secondary,
               .textAlignment = TextAlignment::center,
               .lineBreak = LineBreak::truncateMiddle,
               .maximumLines = 1,
               .width = 290};
  View stack{.kind = ViewKind::stack,
             .alignment = StackAlignment::centerX,
             .spacing = 10,
             .children = {std::move(picture), std::move(address)}};
  Alert alert{.style = AlertStyle::informational,
              .messageText = "手機配對 QR",
              .informativeText = "用 iPhone 系統相機掃描，下方 Kestrune 會自動填入 API URL 與 Token。",
              .buttons = {"好"},
              .accessoryView = View{.kind = ViewKind::container,
                                    .width = 300,
                                    .height = 315,
                                    .insets = {.top = 8, .bottom = 8},
                                    .children = {std::move(stack)}}};
  platform.alerts.present({[alert = std::move(alert)] { return alert; }, [](const AlertAnswer&) {}});
}

// --- settings dialog

void AppDelegate::showSettings() {
  platform.alerts.present({.describe = [self = shared_from_this()] { return self->makeSettingsAlert(); },
                           .completion = [self = shared_from_this()](
                                             const AlertAnswer& answer) { self->settingsDidClose(answer); },
                           .identifier = settingsIdentifier});
}

Alert AppDelegate::makeSettingsAlert() const {
  const std::string home = platform.fileManager.homeDirectoryPath();
  const std::string apiURL = publicAPIURL();
  const std::string appToken = loadEnvValue(env::appAPIToken, env::legacyAppAPIToken).value_or("");
  const std::string serviceToken =
      loadEnvValue(env::macServiceToken, env::legacyMacServiceToken).value_or("");
  const std::string projectRoot = loadEnvValue(env::projectRoot, env::legacyProjectRoot).value_or(home);
  const std::string openAIKey = loadEnvValue(env::openAIAPIKey).value_or("");

  const auto row = [](const SettingsRow& settings, View field) {
    field.identifier = settings.key;
    return makeSettingsRow(settings.title, std::move(field));
  };
  View stack{.kind = ViewKind::stack,
             .alignment = StackAlignment::leading,
             .spacing = 10,
             .insets = {.top = 10, .left = 12, .bottom = 10, .right = 12}};
  stack.children = {
      makeSettingsSectionLabel("手機配對"),
      makeSettingsHint("第一次把手機接到這台 Mac 時，先在菜單欄顯示配對 QR，再用 iPhone "
                       "系統相機掃描即可自動帶入連線資訊。"),
      makeSettingsButton("顯示手機配對 QR", "showPairingQR"),
      makeSettingsSectionLabel("連線"),
      row(apiURLRow, makeSettingsField(apiURL, env::placeholderPublicAPIURL)),
      row(appTokenRow, makeSettingsField(appToken, "手機端 API Token")),
      row(serviceTokenRow, makeSettingsField(serviceToken, "Mac 本機服務 Token")),
      makeSettingsSectionLabel("專案"),
      row(projectRootRow, makeSettingsField(projectRoot, home)),
      makeSettingsHint(
          "專案根目錄用來限定手機端可瀏覽、讀取和展示的項目範圍。手機端新增項目只輸入名稱時，也會放到這個"
          "根目錄下。建議設為存放客戶項目的上層資料夾，例如 ~/APPtest 或你的工作區根目錄。",
          3),
      makeSettingsSectionLabel("語音輸入"),
      row(openAIKeyRow, makeSecureSettingsField(openAIKey, "OpenAI API Key")),
      makeSettingsHint("OPENAI_API_KEY 只用在手機端的語音轉文字。桌面 Codex "
                       "會話的模型、推理級別與權限仍以桌面端目前設定為準。",
                       3),
      makeSettingsHint("建議分開管理兩個 Token：手機 App 用 KESTRUNE_APP_API_TOKEN；Mac 本機服務用 "
                       "KESTRUNE_MAC_SERVICE_TOKEN。"),
  };
  // The document is as high as its content, and the window shows a part of it.
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
                            .children = {std::move(scroll)}},
      .target = std::weak_ptr<ActionTarget>(std::const_pointer_cast<AppDelegate>(shared_from_this()))};
}

void AppDelegate::settingsDidClose(const AlertAnswer& answer) {
  static constexpr std::size_t save = 0;
  static constexpr std::size_t openFile = 1;
  static constexpr auto failureTitle = "設定保存失敗";
  if (answer.button == openFile) platform.workspace.open(envPath());
  if (answer.button != save) return;

  std::map<std::string, std::string> values;
  for (const auto& row : settingsRows) {
    const auto field = answer.fields.find(row.key);
    // A face that does not know a field has nothing to say about its value.
    if (field == answer.fields.end()) continue;
    std::string value(trimmed(field->second));
    // With either of them in it, the file would say something else, or nothing at all.
    const char* const fault = holdsLineEnd(value)   ? "不能換行"
                              : !isValidUtf8(value) ? "不是有效的 UTF-8 文字"
                                                    : nullptr;
    if (fault != nullptr) {
      showResultWindow(failureTitle, std::string("「") + row.title + "」的內容" + fault + "。設定沒有保存。",
                       true);
      return;
    }
    values[row.key] = std::move(value);
  }
  const OperationResult result = saveEnvValues(values);
  if (result.ok) {
    reconnectServices(true, "設定已保存並開始重新檢查");
  } else {
    showResultWindow(failureTitle, result.message, true);
  }
}

View AppDelegate::makeSettingsSectionLabel(const char* title) {
  return {.kind = ViewKind::label,
          .text = title,
          .fontSize = 12,
          .fontWeight = FontWeight::semibold,
          .textColor = TextColor::primary,
          .maximumLines = 1,
          .width = rowWidth};
}

View AppDelegate::makeSettingsHint(const char* text, int lines) {
  return {.kind = ViewKind::label,
          .text = text,
          .fontSize = 11,
          .textColor = TextColor::secondary,
          .lineBreak = LineBreak::wordWrap,
          .maximumLines = lines,
          .width = rowWidth};
}

View AppDelegate::makeSettingsField(const std::string& text, const std::string& placeholder) {
  return {.kind = ViewKind::textField,
          .text = text,
          .placeholder = placeholder,
          .lineBreak = LineBreak::truncateMiddle,
          .maximumLines = 1};
}

View AppDelegate::makeSecureSettingsField(const std::string& text, const std::string& placeholder) {
  View field = makeSettingsField(text, placeholder);
  field.kind = ViewKind::secureTextField;
  return field;
}

View AppDelegate::makeSettingsRow(const char* title, View field) {
  field.width = rowWidth;
  field.accessibilityLabel = title;
  View label{.kind = ViewKind::label,
             .text = title,
             .fontSize = 12,
             .fontWeight = FontWeight::medium,
             .textColor = TextColor::secondary,
             .maximumLines = 1};
  return {.kind = ViewKind::stack,
          .alignment = StackAlignment::leading,
          .spacing = 4,
          .children = {std::move(label), std::move(field)}};
}

View AppDelegate::makeSettingsButton(const char* title, const char* action) {
  return {.kind = ViewKind::button, .text = title, .action = action, .width = buttonWidth};
}

}  // namespace kestrune
