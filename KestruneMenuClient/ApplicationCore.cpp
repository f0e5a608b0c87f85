#include <cstdio>
#include <cstdlib>

#include "KestruneMenuClient/AppDelegate.h"

namespace kestrune {

void fatalError(const char* message) {
  std::fprintf(stderr, "KestruneMenuClient: fatal error: %s\n", message);
  std::abort();
}

void AppDelegate::applicationDidFinishLaunching() {
  if (platform.application == nullptr) fatalError("there is no application object");
  platform.application->setActivationPolicy(ActivationPolicy::accessory);
  requestNotificationPermission();
  configureStatusItem();
  startMonitoringNetwork();
  startPeriodicRefresh();
  periodicRefreshDidTick();  // the timer ticks only after its first interval
  platform.launchAgents.repair(launchAgentLabel, repoPath);
  platform.statusFeed.onPerform([weak = weak_from_this()](const std::string& action) {
    const auto self = weak.lock();
    return self ? self->performRequest(action) : Failure{"the client is about to end"};
  });
}

void AppDelegate::applicationWillTerminate() {
  platform.pathMonitor.cancel();
  if (refreshTimer) refreshTimer->invalidate();
  releaseSleepAssertion();
  // Drop the queued commands (`close`) and kill the running ones (`reserveForThisThread`). Otherwise a
  // command could restart a service that the stop script has stopped.
  workerQueue->close();
  platform.processes.reserveForThisThread();
  stopBackendServicesSynchronously();
}

std::string AppDelegate::describeBackend() const {
  const auto onOff = [](bool on) { return std::string(on ? "on" : "off"); };
  std::string text;
  // Remove control characters: a path may contain some, and a terminal would obey them.
  const auto line = [&text](const std::string& words) { text += withoutControls(words) + "\n"; };
  line("Program: " + currentExecutablePath());
  line("Backend: " + repoPath + ", " + locateRepo(platform.mainBundle).rule);
  for (const char* const file : {environmentScript, ".env"}) {
    const std::string path = repoPath + "/" + file;
    line("  " + path + ": " + (platform.fileManager.fileExists(path) ? "there" : "missing"));
  }
  const auto token = loadEnvValue(env::macServiceToken, env::legacyMacServiceToken);
  line(std::string("  token of the local service: ") + (!token           ? "not set"
                                                        : token->empty() ? "empty"
                                                                         : "set"));
  line("Automatic connection: " + onOff(isAutoConnectEnabled()));
  line("Keep awake: " + onOff(isKeepAwakeEnabled()));
  line(std::string("Mode: ") + nameOfMode(isOfficialConnectionMode()));
  line("Start at login: " + onOff(isLaunchAtLoginEnabled()) + ", " + userLaunchAgentPath() +
       (platform.launchAgents.areRead() ? "" : ", which nothing reads: there is no desktop"));
  return text;
}

std::optional<std::string> AppDelegate::missingBackendWarning() const {
  if (holdsBackend()) return std::nullopt;
  return "no backend in " + withoutControls(repoPath) + ", " + locateRepo(platform.mainBundle).rule +
         ": it has no .venv/bin/activate. Set KESTRUNE_REPO_PATH to the folder of the backend.";
}

std::string AppDelegate::currentAppBundlePath() const {
  static constexpr std::string_view suffix = ".app";
  if (std::string bundlePath = platform.mainBundle.bundlePath(); bundlePath.ends_with(suffix))
    return bundlePath;
  const std::string executablePath = currentExecutablePath();
  if (const auto at = executablePath.rfind(suffix); at != std::string::npos)
    return executablePath.substr(0, at + suffix.size());
  return repoPath + "/dist/Kestrune Menu Client.app";
}

}  // namespace kestrune
