#include <utility>

#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/settings/EnvKeys.h"
#include "KestruneMenuClient/Text.h"
#include "KestruneMenuClient/settings/SettingsForm.h"

namespace kestrune {

namespace {

bool isAllowedInQueryValue(char character) {
  static constexpr std::string_view marks = "-._~!$'()*,;:@/";
  return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
         (character >= '0' && character <= '9') || marks.find(character) != std::string_view::npos;
}

std::optional<std::string> asText(std::optional<std::string> bytes) {
  return bytes && isValidUtf8(*bytes) ? std::move(bytes) : std::nullopt;
}

constexpr auto settingsIdentifier = "settings";

}  // namespace

// --- .env store

std::string AppDelegate::envPath() const {
  return repoPath + "/.env";
}

std::optional<std::string> AppDelegate::loadEnvValue(std::string_view key) const {
  auto text = asText(platform.fileManager.contents(envPath()));
  if (!text) return std::nullopt;
  return EnvFile(std::move(*text)).value(key);
}

std::optional<std::string> AppDelegate::loadEnvValue(const char* key, const char* legacyKey) const {
  auto value = loadEnvValue(key);
  return value ? std::move(value) : loadEnvValue(legacyKey);
}

OperationResult AppDelegate::saveEnvValues(const EnvValues& values) {
  FileManager& files = platform.fileManager;
  const std::string path = envPath();
  EnvFile file;
  if (auto text = asText(files.contents(path))) {
    file = EnvFile(std::move(*text));
  } else {
    // What is about to be replaced could not be read, but may be all that the user has.
    if (files.fileExists(path)) {
      if (auto failure = files.keepUnreadable(path)) return {false, std::move(*failure)};
    }
    const std::string templatePath = repoPath + "/.env.example";
    if (files.fileExists(templatePath)) {
      if (auto seed = asText(files.contents(templatePath))) file = EnvFile(std::move(*seed));
    }
  }
  if (auto failure = files.writeAtomically(path, file.with(values))) return {false, std::move(*failure)};
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
  const auto describe = [self = shared_from_this()] {
    Alert alert = makeSettingsAlert(self->settingsValues(), self->platform.fileManager.homeDirectoryPath());
    alert.target = self;
    return alert;
  };
  platform.alerts.present({.describe = describe,
                           .completion = [self = shared_from_this()](
                                             const AlertAnswer& answer) { self->settingsDidClose(answer); },
                           .identifier = settingsIdentifier});
}

EnvValues AppDelegate::settingsValues() const {
  EnvValues values;
  values[env::publicAPIURL] = publicAPIURL();
  values[env::appAPIToken] = loadEnvValue(env::appAPIToken, env::legacyAppAPIToken).value_or("");
  values[env::macServiceToken] = loadEnvValue(env::macServiceToken, env::legacyMacServiceToken).value_or("");
  values[env::projectRoot] = loadEnvValue(env::projectRoot, env::legacyProjectRoot)
                                 .value_or(platform.fileManager.homeDirectoryPath());
  values[env::openAIAPIKey] = loadEnvValue(env::openAIAPIKey).value_or("");
  return values;
}

void AppDelegate::settingsDidClose(const AlertAnswer& answer) {
  static constexpr std::size_t save = 0;
  static constexpr std::size_t openFile = 1;
  static constexpr auto failureTitle = "設定保存失敗";
  if (answer.button == openFile) platform.workspace.open(envPath());
  if (answer.button != save) return;

  const EnvValues values = settingsOf(answer);
  if (const auto fault = faultOfSettings(values)) return showResultWindow(failureTitle, *fault, true);
  const OperationResult result = saveEnvValues(values);
  if (result.ok) {
    reconnectServices(true, "設定已保存並開始重新檢查");
  } else {
    showResultWindow(failureTitle, result.message, true);
  }
}

}  // namespace kestrune
