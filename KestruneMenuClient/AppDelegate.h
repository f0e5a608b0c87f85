#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "KestruneMenuClient/backend/Backend.h"
#include "KestruneMenuClient/settings/EnvFile.h"
#include "KestruneMenuClient/settings/Preferences.h"
#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "ports/Platform.h"
#include "text/Text.h"

namespace kestrune {

/// Ends the process because of a programming error: prints `message` on standard error and aborts.
[[noreturn]] void fatalError(const char* message);

/// The controller: holds the application's state and performs all menu actions. A `std::shared_ptr` must own
/// it before a method that sets callbacks is called. Main thread, unless a comment says otherwise.
class AppDelegate final : public ApplicationDelegate,
                          public ActionTarget,
                          public Preferences,
                          public std::enable_shared_from_this<AppDelegate> {
 public:
  /// `givenPlatform` must outlive the controller.
  explicit AppDelegate(Platform& givenPlatform)
      : Preferences(givenPlatform.userDefaults), platform(givenPlatform) {}

  // Life cycle, paths (ApplicationCore.cpp); preferences and connection mode: settings/Preferences.h

  void applicationDidFinishLaunching() override;
  void applicationWillTerminate() override;

  static std::string resolveRepoPath(const MainBundle& mainBundle) { return locateRepo(mainBundle).path; }
  /// Describes the backend's folder and the preferences for a bug report, in lines of text without secrets.
  std::string describeBackend() const;
  /// Returns a warning, in English, if the backend's folder holds no backend; absent if it holds one.
  std::optional<std::string> missingBackendWarning() const;
  std::string currentExecutablePath() const {
    return platform.mainBundle.executablePath().value_or(
        repoPath + "/dist/Kestrune Menu Client.app/Contents/MacOS/KestruneMenuClient");
  }
  std::string currentAppBundlePath() const;

  // Commands of the backend (backend/Backend.cpp)

  static constexpr Seconds stopTimeout{8.0};

  /// Runs a shell line and waits for its end, see Backend.h. Blocks; any thread.
  CommandResult runShellCommand(const std::string& commandLine, Seconds timeout = defaultCommandTimeout) {
    return kestrune::runShellCommand(platform.processes, platform.clock, commandLine, timeout);
  }
  /// Returns `text` quoted as a single word of a shell line.
  static std::string shellEscape(std::string_view text) {
    return "'" + replacingAll(text, "'", "'\"'\"'") + "'";
  }
  static std::string kestruneClientCommand(std::string_view subcommand) { return clientCommand(subcommand); }
  std::string backendCommandLine(std::string_view subcommand) const {
    return kestrune::backendCommandLine(repoPath, subcommand);
  }
  std::string backendServiceStopCommand() const { return stopScript(platform.serviceControl); }
  /// Runs the stop script. Blocks for about 9 s at most: 8 s for the script, then 1 s to read its output.
  void stopBackendServicesSynchronously() { runShellCommand(backendServiceStopCommand(), stopTimeout); }

  // Reports (status/), refresh cycle, network changes, project and chat thread (StatusMonitoring.cpp)

  static ConnectionLampState inferLampState(const CommandResult& result) {
    return StatusReport(result.ok, result.output).lamp;
  }
  static std::string prettifyOutput(std::string_view output) { return prettified(output); }
  /// Returns what `codexFinding` finds, as text: "OK DETAIL" or "需檢查 DETAIL"; absent if it finds no line.
  static std::optional<std::string> diagnosticDetail(std::string_view output, std::string_view label) {
    const CodexFinding finding = codexFinding(output, label);
    return finding.verdict == CodexVerdict::unknown ? std::nullopt : std::optional(codexRow("", finding));
  }
  static std::string compactDiagnosticDetail(std::string_view detail) { return compactDetail(detail); }
  void updateCodexRuntimeSummaries(std::string_view output) { take(StatusReport(true, output)); }

  /// Asks the backend for its status and shows the status. If `triggerNotification` is true, also shows a
  /// notification, which says that the network has changed. Does nothing while another refresh is running.
  void refreshStatus(bool triggerNotification);
  /// Shows that auto-connect is off. Runs no command.
  void presentAutoConnectDisabledState();
  /// Starts or restarts the timer that updates the shown status every 20 seconds.
  void startPeriodicRefresh();
  void startMonitoringNetwork();
  /// Queues the backend's command `refresh`, and returns without waiting for the command. After the command,
  /// asks for the backend's status. With `showWindow`, also shows the command's output, followed by
  /// `extraContent`, in a window. Each call queues a command of its own, even while another one is running.
  void reconnectServices(bool showWindow, const std::string& title = "刷新連線",
                         const std::optional<std::string>& extraContent = std::nullopt);
  /// Asks the local service for the current project and chat thread. Stores the answer in `current.session`,
  /// then calls `completion`. If another request is running, or the last answer is younger than 45 s, or .env
  /// has no token, sends no request and calls `completion` at once.
  void refreshLiveSessionSnapshot(const Job& completion);
  static std::string compactThreadName(std::string_view name) { return kestrune::compactThreadName(name); }

  // Lamp, logo, button, result window, notifications (MenuBarPresentation.cpp), menu (StatusMenu.cpp)

  void configureStatusItem();
  void updateButton(ConnectionLampState state, const std::string& title);
  /// Returns the logo for the lamp `state`; null when no logo can be loaded.
  ImageRef loadMenuBarLogo(ConnectionLampState state);
  ImageRef baseMenuBarLogo();
  ImageRef makeGrayscaleImage(const Image& image);
  void rebuildMenu(const std::string& statusText, ConnectionLampState state, int pendingCount);
  void performAction(std::string_view action) override;
  /// Returns one line for each action that `performRequest` accepts: the action and the titles of its row.
  static std::string describeActions();
  /// Performs `action` for another program. Fails if no enabled menu row has this action now, with a reason
  /// in English.
  Result<> performRequest(const std::string& action);
  /// Shows a window with one button; returns at once.
  void showResultWindow(const std::string& title, const std::string& content, bool isError = false);
  void requestNotificationPermission() {
    platform.notifications.requestAuthorization(static_cast<unsigned>(NotificationOption::alert) |
                                                static_cast<unsigned>(NotificationOption::sound));
  }
  void showNotification(const std::string& title, const std::string& body);

  // The backend's .env, pairing link and QR code, settings dialog (ConfigurationAndPairing.cpp)

  /// Returns what `EnvFile::value` finds in the backend's .env; also absent when the file cannot be read.
  std::optional<std::string> loadEnvValue(std::string_view key, std::string_view legacyKey = {}) const {
    return EnvFile(platform.fileManager.contents(envPath())).value(key, legacyKey);
  }
  /// Sets the keys of `values` in the backend's .env and keeps every other line. `shown` holds the values
  /// that the dialog showed. If saving would overwrite a non-empty value that the dialog did not show (for
  /// example, because the file has changed meanwhile), first copies the file to ".env.previous". A .env that
  /// cannot be read is kept as ".env.unreadable". After saving, a notification names the file that was kept.
  /// If `shown` is null, makes no ".env.previous" and shows no notification. Returns a message for the user.
  Result<std::string> saveEnvValues(const EnvValues& values, const EnvValues* shown = nullptr);
  static std::string percentEncodeQueryValue(std::string_view value);
  /// Returns the link that gives a phone the backend's URL and API token; absent when .env has no token.
  std::optional<std::string> makePairingURL() const;
  /// Returns the QR code of `text`, `size` points wide and high; null when `text` cannot be encoded.
  ImageRef makeQRCodeImage(const std::string& text, double size = 260) const;

  // Keep-awake, launch at login (SystemIntegration.cpp)

  void ensureSleepAssertion();
  void releaseSleepAssertion();
  void syncSleepAssertionWithSettings();
  std::string userLaunchAgentPath(const std::string& label) const {
    return platform.launchAgents.path(label);
  }
  std::string userLaunchAgentPath() const { return userLaunchAgentPath(launchAgentLabel); }
  std::string legacyUserLaunchAgentPath() const { return userLaunchAgentPath(legacyLaunchAgentLabel); }
  bool isLaunchAtLoginEnabled() const {
    return platform.launchAgents.isRegistered(launchAgentLabel) ||
           platform.launchAgents.isRegistered(legacyLaunchAgentLabel);
  }
  /// Returns a message for the user.
  Result<std::string> setLaunchAtLoginEnabled(bool enabled);

 private:
  friend struct AppDelegateState;  // lets tests read the fields

  struct MenuRow;
  static const MenuRow menuRows[];
  const MenuRow& rowAt(int number) const;

  void take(const StatusReport& report) {
    current.checkedAt = platform.clock.calendarTime();
    current.codex = report.codex;
  }
  /// Asks the backend for its status on the worker queue. On the main thread, takes the report and calls
  /// `then`.
  void queryStatus(std::function<void(const CommandResult&, const StatusReport&)> then);
  void show(const std::string& statusText, ConnectionLampState state) {
    rebuildMenu(statusText, state, 0);
    updateButton(state, "Kestrune");
  }
  bool isReconnecting() const { return current.reconnecting; }
  void periodicRefreshDidTick();
  void pathDidUpdate(const NetworkPath& path);
  /// Runs a shell line on the worker queue, and calls `then` with its result on the main thread.
  void runOnWorker(std::string commandLine, Seconds timeout, std::function<void(const CommandResult&)> then);
  /// Polls `trial` (the client's program, started with --version) until it ends or `deadline` has passed.
  /// Then restarts the client, or shows why the program cannot run. Does not block.
  void awaitTrial(const std::shared_ptr<Process>& trial, Seconds deadline);
  void trialDidEnd(const Result<>& trial);

  bool holdsBackend() const { return platform.fileManager.fileExists(repoPath + "/" + environmentScript); }
  std::string envPath() const { return repoPath + "/.env"; }
  std::string publicAPIURL() const {
    return loadEnvValue(env::publicAPIURL).value_or(env::placeholderPublicAPIURL);
  }
  std::string pairingToken() const {
    return loadEnvValue(env::appAPIToken, env::legacyAppAPIToken).value_or("");
  }
  void settingsDidClose(const AlertAnswer& answer, const EnvValues& shown);

  void refreshNow() {
    setAutoConnectEnabled(true);
    reconnectServices(true);
  }
  void stopConnection();
  void showStatus();
  void showCodexRuntimeStatus();
  void openCodexApp();
  void showChatGPTRemoteGuide();
  void openProjectFolder() { platform.workspace.open(repoPath); }
  void showSettings();
  void showPairingQR();
  void toggleLaunchAtLogin();
  void toggleAutoConnect();
  void toggleKeepAwake();
  void toggleConnectionMode();
  void restartMenuClient();
  void quit() { platform.application->terminate(); }

  Platform& platform;
  StatusItem* statusItem = nullptr;  ///< null until `configureStatusItem` has added it to the status bar
  std::unique_ptr<DispatchQueue> monitorQueue = platform.dispatch.makeSerialQueue(
      "kestrune.menu.monitor", QualityOfService::standard, QueueTarget::mainThread);
  const std::string repoPath = resolveRepoPath(platform.mainBundle);
  const std::string launchAgentLabel = "com.dovrel.kestrune.menuclient";
  const std::string legacyLaunchAgentLabel = "com.dovrel.halvask.menuclient";
  StatusSnapshot current;
  ImageRef cachedConnectedLogo;
  ImageRef cachedDisconnectedLogo;
  std::unique_ptr<DispatchQueue> workerQueue = platform.dispatch.makeSerialQueue(
      "kestrune.menu.worker", QualityOfService::userInitiated, QueueTarget::ownThread);
  bool statusRefreshInProgress = false;
  bool liveSessionRefreshInProgress = false;
  std::optional<Seconds> lastLiveSessionRefreshAt;  ///< by `Clock::continuousTime`; absent: no refresh yet
  std::unique_ptr<Timer> refreshTimer;
  /// The identifiers of the two power assertions. Both are 0 while the assertions are not held.
  std::uint32_t displaySleepAssertionID = 0;
  std::uint32_t systemSleepAssertionID = 0;
};

}  // namespace kestrune
