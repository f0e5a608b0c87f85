#include <cstdio>
#include <random>

#include "KestruneMenuClient/AppDelegate.h"

namespace kestrune {

constexpr double logoSize = 22;     // points
constexpr Seconds trialLimit{2.0};  // time limit for the trial run with "--version" before a restart

static ImageRef asMenuBarLogo(ImageRef image) {
  if (image) {
    image->isTemplate = false;
    image->width = logoSize;
    image->height = logoSize;
  }
  return image;
}

// --- status item: the lamp (a coloured dot), the logo and the button

void AppDelegate::configureStatusItem() {
  statusItem = &platform.statusItem;
  statusItem->addToStatusBar(StatusItem::squareLength);
  updateButton(ConnectionLampState::warning, "Kestrune");
  rebuildMenu("正在檢查狀態…", ConnectionLampState::warning, 0);
}

void AppDelegate::updateButton(ConnectionLampState state, const std::string& title) {
  if (statusItem == nullptr) fatalError("the button is updated before the status item exists");
  if (!statusItem->hasButton()) return;
  const std::string text =
      title + " · " + std::string(menuLabel(state)) + " · " + current.session.projectTitle;
  statusItem->setButton({.image = asMenuBarLogo(loadMenuBarLogo(state)),
                         .imagePosition = ImagePosition::imageOnly,
                         .toolTip = text,
                         .accessibilityLabel = text});
}

ImageRef AppDelegate::loadMenuBarLogo(ConnectionLampState state) {
  if (state == ConnectionLampState::ok) {
    if (!cachedConnectedLogo) cachedConnectedLogo = baseMenuBarLogo();
    return cachedConnectedLogo;
  }
  if (cachedDisconnectedLogo) return cachedDisconnectedLogo;
  if (const ImageRef logo = baseMenuBarLogo()) cachedDisconnectedLogo = makeGrayscaleImage(*logo);
  // If no grey logo could be made, return the logo in colour.
  return cachedDisconnectedLogo ? cachedDisconnectedLogo : baseMenuBarLogo();
}

ImageRef AppDelegate::baseMenuBarLogo() {
  const auto resource = [this](const char* name, const char* extension) -> ImageRef {
    const auto path = platform.mainBundle.pathForResource(name, extension);
    return path ? platform.images.imageFromFile(*path) : nullptr;
  };
  if (const ImageRef logo = resource("codex-menubar", "png"))
    return asMenuBarLogo(std::make_shared<Image>(*logo));
  if (ImageRef icon = platform.images.imageNamed("KestruneMacClient")) return asMenuBarLogo(std::move(icon));
  return asMenuBarLogo(resource("KestruneMacClient", "icns"));
}

ImageRef AppDelegate::makeGrayscaleImage(const Image& image) {
  return asMenuBarLogo(
      platform.images.applyColorControls(image, {.saturation = 0.0, .brightness = 0.0, .contrast = 1.0}));
}

// --- commands, result window, notifications

void AppDelegate::runOnWorker(std::string commandLine, Seconds timeout,
                              std::function<void(const CommandResult&)> then) {
  workerQueue->async(
      [self = shared_from_this(), commandLine = std::move(commandLine), timeout, then = std::move(then)] {
        self->platform.dispatch.mainQueue().async(
            [self, then, result = self->runShellCommand(commandLine, timeout)] { then(result); });
      });
}

void AppDelegate::stopConnection() {
  runOnWorker(backendServiceStopCommand(), stopTimeout, [this](const CommandResult& result) {
    setAutoConnectEnabled(false);
    current.reconnecting = false;
    releaseSleepAssertion();
    current.session = LiveSession::disabled;
    show("已手動關停，背景服務已停止", ConnectionLampState::error);
    showResultWindow("手動關停連線", result.output.empty()
                                         ? "已停止本地服務、桌面橋接與反向隧道，並已關閉自動連線。"
                                         : prettifyOutput(result.output) + "\n\n已同步關閉自動連線。");
  });
}

void AppDelegate::showStatus() {
  queryStatus([this](const CommandResult& result, const StatusReport&) {
    refreshStatus(false);
    std::string hint;
    if (!result.ok && !holdsBackend()) {
      hint = "後端資料夾 " + repoPath +
             " 裡沒有 .venv/bin/activate。請把環境變數 KESTRUNE_REPO_PATH 設為後端的資料夾，再重新啟動。\n\n";
    }
    showResultWindow("目前狀態", hint + prettifyOutput(result.output), !result.ok);
  });
}

void AppDelegate::showCodexRuntimeStatus() {
  queryStatus([this](const CommandResult& result, const StatusReport& report) {
    rebuildMenu("Codex 診斷已更新", report.lamp, 0);
    showResultWindow("Codex 版本與 Remote Control", prettifyOutput(result.output), false);
  });
}

void AppDelegate::openCodexApp() {
  const std::string path = "/Applications/Codex.app";
  if (platform.fileManager.fileExists(path)) return platform.workspace.open(path);
  showResultWindow(
      "未找到 Codex App",
      "請先安裝最新版 Codex App。官方 ChatGPT 手機遠程連接需要 Mac 上運行 Codex App，不能只靠 CLI 或 IDE "
      "啟動。",
      true);
}

void AppDelegate::showChatGPTRemoteGuide() {
  showResultWindow(
      "官方 ChatGPT 連接說明",
      "官方 ChatGPT 手機連接流程：\n\n"
      "1. 確認 Mac 已安裝並登入最新版 Codex App。\n"
      "2. 保持 Mac 醒著、在線，並讓 Codex App 持續運行。\n"
      "3. 在 Codex App 側邊欄選「Set up Codex mobile」。\n"
      "4. 用手機掃描 Codex App 顯示的 QR code。\n"
      "5. 在 ChatGPT App 內確認同一個帳號和 workspace，完成連接。\n\n"
      "Kestrune 自托管路徑仍然使用 VPS Relay、Mac service 和手機 App "
      "Token。兩條路徑可以並行使用：普通遠程控制用官方 ChatGPT App；需要自托管、私有 Relay 或獨立交付時用 "
      "Kestrune。");
}

void AppDelegate::toggleAutoConnect() {
  const bool enabled = !isAutoConnectEnabled();
  setAutoConnectEnabled(enabled);
  if (enabled) {
    reconnectServices(false);
    // U+2011 is a non-breaking hyphen.
    showResultWindow("已開啟自動連線",
                     "之後換 Wi\u2011Fi、熱點或網路路徑時，Kestrune 會自動重新檢查並嘗試恢復連線。");
  } else {
    runOnWorker(backendServiceStopCommand(), stopTimeout, [](const CommandResult&) {});
    presentAutoConnectDisabledState();
    showResultWindow("已關閉自動連線", "已停止本地服務、桌面橋接與反向隧道；之後換網時也不會自動重連。");
  }
}

void AppDelegate::toggleConnectionMode() {
  const bool official = !isOfficialConnectionMode();
  setOfficialConnectionMode(official);
  rebuildMenu(official ? "已切換到官方 ChatGPT 模式" : "已切換到 Kestrune 自托管模式",
              ConnectionLampState::warning, 0);
  showResultWindow(
      "已切換連接模式",
      official ? "目前模式：官方 ChatGPT。\n\n菜單欄會重點協助你保持 Mac 醒著、打開 Codex App、檢查 ChatGPT "
                 "Remote Ready。Kestrune 自托管服務不會被自動關閉；需要停止時可手動關停連線。"
               : "目前模式：Kestrune 自托管。\n\n菜單欄會重點協助你維持 Mac service、desktop bridge、VPS "
                 "tunnel、配對 QR 和手機 App Token。");
}

void AppDelegate::restartMenuClient() {
  // First run the program file as a trial. If it fails, this client and the backend must not be stopped.
  auto trial = platform.processes.launch(currentExecutablePath(), {"--version"});
  if (!trial) return trialDidEnd(Failure{trial.reason()});
  awaitTrial(std::move(*trial), platform.clock.awakeTime() + trialLimit);
}

void AppDelegate::awaitTrial(const std::shared_ptr<Process>& trial, Seconds deadline) {
  if (!trial->isRunning()) {
    const int status = trial->terminationStatus();
    if (status == 0) return trialDidEnd(Done{});
    const std::string text = commandText(trial->readOutput(Seconds{0}));
    return trialDidEnd(Failure{text.empty() ? "程式以狀態 " + std::to_string(status) + " 結束。" : text});
  }
  if (platform.clock.awakeTime() >= deadline) {
    trial->terminateGroup();
    return trialDidEnd(Failure{commandTimedOut});
  }
  platform.dispatch.mainQueue().asyncAfter(
      commandPollInterval, [=, self = shared_from_this()] { self->awaitTrial(trial, deadline); });
}

void AppDelegate::trialDidEnd(const Result<>& trial) {
  const Result<> opened = trial ? platform.workspace.openNewInstance(currentAppBundlePath()) : trial;
  if (opened) return platform.application->terminate();
  showResultWindow("重新啟動失敗", "無法重新打開 Kestrune 菜單欄：" + opened.reason(), true);
}

void AppDelegate::showResultWindow(const std::string& title, const std::string& content, bool isError) {
  Alert alert{.style = isError ? AlertStyle::warning : AlertStyle::informational,
              .messageText = title,
              .informativeText = content,
              .buttons = {"好"}};
  platform.alerts.present({[alert = std::move(alert)] { return alert; }, [](const AlertAnswer&) {}});
}

void AppDelegate::showNotification(const std::string& title, const std::string& body) {
  // Construct it once: it may open a file, and throws if it cannot.
  static std::random_device random;
  char uuid[37];  // a random UUID (version 4)
  std::snprintf(uuid, sizeof uuid, "%08X-%04X-4%03X-%04X-%04X%08X", random(), random() & 0xffff,
                random() & 0xfff, (random() & 0x3fff) | 0x8000, random() & 0xffff, random());
  platform.notifications.add({.identifier = uuid, .title = title, .body = body});
}

}  // namespace kestrune
