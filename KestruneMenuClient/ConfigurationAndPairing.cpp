#include <utility>

#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/settings/SettingsForm.h"

namespace kestrune {

static std::optional<std::string> pairingURL(const std::string& apiURL, const std::string& token) {
  if (token.empty()) return std::nullopt;
  return "kestrune://configure?apiUrl=" + AppDelegate::percentEncodeQueryValue(apiURL) +
         "&token=" + AppDelegate::percentEncodeQueryValue(token);
}

static Failure notSaved(const std::string& reason) {
  return {reason + "設定沒有保存。"};
}

Result<std::string> AppDelegate::saveEnvValues(const EnvValues& values, const EnvValues* shown) {
  FileManager& files = platform.fileManager;
  const std::string path = envPath();
  FileContents found = files.contents(path);
  if (found.outcome == ReadOutcome::tooLarge) return notSaved(path + " 超過 16 MiB，無法讀取。");
  if (found.outcome == ReadOutcome::temporaryFailure) return Failure{found.problem};
  const EnvFile old(std::move(found));
  FileContents example = old.isThere() ? FileContents() : files.contents(repoPath + "/.env.example");
  if (example.outcome == ReadOutcome::temporaryFailure) return Failure{example.problem};
  const EnvFile fresh(std::move(example));
  const auto contents = (old.isThere() ? old : fresh).with(values);
  if (!contents) return notSaved("保存後 " + path + " 會超過 16 MiB。");

  std::string kept;  // path of the file that keeps the old settings; empty if there is none
  std::string reason;
  if (shown && old.losesValue(values, *shown)) {
    kept = path + ".previous";
    reason = "設定視窗沒有顯示的值已被覆蓋";
    if (const auto copied = files.writePrivately(kept, old.text()); !copied)
      return notSaved("無法把原有的設定保留為 " + kept + "：" + copied.reason() + "。");
  }
  if (old.isThere()) {
    if (const auto written = files.writeAtomically(path, *contents); !written)
      return Failure{written.reason()};
  } else {
    // If .env could not be read as text, keep it under another name. It may be the only copy of the settings.
    const auto replaced = files.replaceUnreadable(path, *contents);
    if (!replaced) return Failure{replaced.reason()};
    kept = *replaced;
    reason = "無法讀取 .env，它已被新檔案取代";
  }
  if (shown && !kept.empty()) {
    platform.notifications.add({.identifier = kept,
                                .title = "原有設定已保留",
                                .body = reason + "，原檔案保留在 " + kept,
                                .lasting = true});
  }
  return "設定已保存到 " + path;
}

std::string AppDelegate::percentEncodeQueryValue(std::string_view value) {
  static constexpr std::string_view digits = "0123456789ABCDEF";
  static constexpr std::string_view allowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$'()*,;:@/";
  std::string encoded;
  for (const char character : value) {
    if (allowed.find(character) != std::string_view::npos) {
      encoded += character;
    } else {
      const auto byte = static_cast<unsigned char>(character);
      encoded += {'%', digits[byte >> 4], digits[byte & 15]};
    }
  }
  return encoded;
}

std::optional<std::string> AppDelegate::makePairingURL() const {
  return pairingURL(publicAPIURL(), pairingToken());
}

ImageRef AppDelegate::makeQRCodeImage(const std::string& text, double size) const {
  auto symbols = platform.images.qrCode(text);
  if (symbols.empty()) return nullptr;
  return std::make_shared<Image>(
      Image{.width = size, .height = size, .isTemplate = false, .bitmaps = std::move(symbols)});
}

void AppDelegate::showPairingQR() {
  const auto fail = [this](const char* reason) { showResultWindow("無法生成配對 QR", reason, true); };
  // Read each value once, so that the QR code and the text below it agree.
  const std::string apiURL = publicAPIURL();
  const std::string token = pairingToken();
  const auto link = pairingURL(apiURL, token);
  if (!link) return fail("請先在 .env 設定 KESTRUNE_APP_API_TOKEN，然後重新整理連線。");
  // If .env has line ends other than LF (such as CR LF), a value contains the lines after it. Do not show
  // this value, because these lines may hold secrets.
  if (EnvFile::holdsLineEnd(apiURL) || EnvFile::holdsLineEnd(token)) {
    return fail(
        ".env 的換行字元不是 LF（例如 CR LF），讀到的 API URL 或 Token 會包含其他行的內容。"
        "請把 .env 的換行改成 LF，再顯示配對 QR。");
  }
  const ImageRef image = makeQRCodeImage(*link);
  if (!image) return fail("QR 圖片生成失敗，請稍後再試。");
  View picture{.kind = ViewKind::image,
               .accessibilityLabel = "手機配對 QR",
               .width = image->width,
               .height = image->height,
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
  const auto shown = std::make_shared<EnvValues>();
  const auto describe = [this, self = shared_from_this(), shown] {
    const std::string home = platform.fileManager.homeDirectoryPath();
    *shown = {
        {env::publicAPIURL, publicAPIURL()},
        {env::appAPIToken, pairingToken()},
        {env::macServiceToken, loadEnvValue(env::macServiceToken, env::legacyMacServiceToken).value_or("")},
        {env::projectRoot, loadEnvValue(env::projectRoot, env::legacyProjectRoot).value_or(home)},
        {env::openAIAPIKey, loadEnvValue(env::openAIAPIKey).value_or("")}};
    Alert alert = makeSettingsAlert(*shown, home);
    alert.target = self;
    return alert;
  };
  const auto completion = [self = shared_from_this(), shown](const AlertAnswer& answer) {
    self->settingsDidClose(answer, *shown);
  };
  platform.alerts.present({.describe = describe, .completion = completion, .identifier = "settings"});
}

void AppDelegate::settingsDidClose(const AlertAnswer& answer, const EnvValues& shown) {
  static constexpr std::size_t save = 0;
  static constexpr std::size_t openFile = 1;
  static constexpr auto failureTitle = "設定保存失敗";
  if (answer.button == openFile) platform.workspace.open(envPath());
  if (answer.button != save) return;

  const EnvValues values = settingsOf(answer);
  if (const auto fault = faultOfSettings(values, shown)) return showResultWindow(failureTitle, *fault, true);
  const auto saved = saveEnvValues(values, &shown);
  if (!saved) return showResultWindow(failureTitle, saved.reason(), true);
  reconnectServices(true, "設定已保存並開始重新檢查");
}

}  // namespace kestrune
