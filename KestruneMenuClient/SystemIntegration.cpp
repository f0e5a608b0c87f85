#include "KestruneMenuClient/AppDelegate.h"

namespace kestrune {

// --- keep-awake

void AppDelegate::ensureSleepAssertion() {
  static constexpr auto name = "Kestrune keeps Mac awake for the mobile bridge";
  PowerAssertions& assertions = platform.powerAssertions;
  if (assertions.isHeld(displaySleepAssertionID) && assertions.isHeld(systemSleepAssertionID)) return;
  releaseSleepAssertion();
  const auto display = assertions.create(PowerAssertionType::noDisplaySleep, powerAssertionLevelOn, name);
  if (!display) return;
  const auto system =
      assertions.create(PowerAssertionType::preventUserIdleSystemSleep, powerAssertionLevelOn, name);
  if (!system) return assertions.release(*display);
  displaySleepAssertionID = *display;
  systemSleepAssertionID = *system;
}

void AppDelegate::releaseSleepAssertion() {
  if (displaySleepAssertionID == 0) return;
  platform.powerAssertions.release(displaySleepAssertionID);
  platform.powerAssertions.release(systemSleepAssertionID);
  displaySleepAssertionID = 0;
  systemSleepAssertionID = 0;
}

void AppDelegate::syncSleepAssertionWithSettings() {
  if (isAutoConnectEnabled() && isKeepAwakeEnabled()) return ensureSleepAssertion();
  releaseSleepAssertion();
}

void AppDelegate::toggleKeepAwake() {
  const bool enabled = !isKeepAwakeEnabled();
  setKeepAwakeEnabled(enabled);
  syncSleepAssertionWithSettings();
  show(enabled ? "保持喚醒已開啟" : "保持喚醒已關閉",
       isAutoConnectEnabled() ? ConnectionLampState::warning : ConnectionLampState::error);
  showResultWindow(
      enabled ? "已開啟保持喚醒" : "已關閉保持喚醒",
      enabled ? "自動連線開啟期間，Kestrune 會請求 macOS 防止閒置睡眠與螢幕睡眠，讓手機端更容易保持連線。"
              : "已釋放防睡眠請求；Mac 會回到系統原本的睡眠策略。");
}

// --- launch at login

Result<std::string> AppDelegate::setLaunchAtLoginEnabled(bool enabled) {
  const std::string path = userLaunchAgentPath();
  FileManager& files = platform.fileManager;
  if (const auto made = files.createDirectory(path.substr(0, path.rfind('/'))); !made)
    return Failure{made.reason()};
  if (!enabled) {
    files.removeItem(path);
    files.removeItem(legacyUserLaunchAgentPath());
    return "已關閉開機自動啟動；目前這個菜單欄應用會繼續執行，直到你手動退出。";
  }
  const auto document = platform.launchAgents.document(launchAgentLabel, currentExecutablePath(), repoPath);
  if (!document) {
    return Failure{
        "程式或後端的路徑含有自動啟動項目無法表示的字元（例如引號、反斜線、$、`、%、=），所以沒有開啟。"
        "請移到名稱簡單的資料夾，再試一次。"};
  }
  files.removeItem(legacyUserLaunchAgentPath());
  if (const auto written = files.writeAtomically(path, *document); !written) return Failure{written.reason()};
  return "已保存開機自動啟動設定，會在下次登入或重開機後生效。";
}

void AppDelegate::toggleLaunchAtLogin() {
  const bool was = isLaunchAtLoginEnabled();
  const auto result = setLaunchAtLoginEnabled(!was);
  if (isAutoConnectEnabled()) {
    reconnectServices(false);
  } else {
    presentAutoConnectDisabledState();
  }
  std::string content = result ? *result : result.reason();
  if (content.empty()) {
    content =
        was ? "之後重開 Mac，Kestrune 菜單欄不會自動載入。" : "之後重開 Mac，Kestrune 菜單欄會自動載入。";
  }
  if (!was && result && !platform.launchAgents.areRead()) {
    showNotification("Kestrune 不會在登入時啟動",
                     "這台電腦沒有安裝桌面環境，登入時沒有程式會讀取這個自動啟動項目。");
  }
  showResultWindow(was ? "已關閉開機自動啟動" : "已開啟開機自動啟動", prettifyOutput(content), !result);
}

}  // namespace kestrune
