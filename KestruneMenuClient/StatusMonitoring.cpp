#include <utility>

#include "KestruneMenuClient/AppDelegate.h"

namespace kestrune {

constexpr Seconds refreshInterval{20.0};
constexpr Seconds settlingTime{1.2};
constexpr Seconds liveSessionInterval{45.0};
constexpr auto networkChangedTitle = "Kestrune 網路已變更";

void AppDelegate::queryStatus(std::function<void(const CommandResult&, const StatusReport&)> then) {
  workerQueue->async([self = shared_from_this(), then = std::move(then)] {
    CommandResult result = self->runShellCommand(self->backendCommandLine("status"));
    // Parse the output here: it may have 16 MiB, and would block the main thread.
    const StatusReport report(result.ok, result.output);
    self->platform.dispatch.mainQueue().async([self, then, report, result = std::move(result)] {
      self->take(report);
      then(result, report);
    });
  });
}

void AppDelegate::refreshStatus(bool triggerNotification) {
  if (std::exchange(statusRefreshInProgress, true)) return;
  queryStatus([this, triggerNotification](const CommandResult& result, const StatusReport& report) {
    if (result.ok) {
      syncSleepAssertionWithSettings();
    } else {
      releaseSleepAssertion();
    }
    refreshLiveSessionSnapshot(
        [self = shared_from_this(), statusText = report.text, lamp = report.lamp, triggerNotification] {
          self->current.reconnecting = false;
          self->statusRefreshInProgress = false;
          self->show(statusText, lamp);
          if (triggerNotification)
            self->showNotification(networkChangedTitle, "偵測到網路切換，已重新檢查本地服務與隧道狀態。");
        });
  });
}

void AppDelegate::presentAutoConnectDisabledState() {
  releaseSleepAssertion();
  current.session = LiveSession::disabled;
  show(disabledStatus, ConnectionLampState::warning);
}

void AppDelegate::startPeriodicRefresh() {
  if (refreshTimer) refreshTimer->invalidate();
  refreshTimer = platform.dispatch.scheduleRepeating(refreshInterval, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->periodicRefreshDidTick();
  });
}

void AppDelegate::periodicRefreshDidTick() {
  if (current.reconnecting) return;
  if (!isAutoConnectEnabled()) return presentAutoConnectDisabledState();
  refreshStatus(false);
}

void AppDelegate::startMonitoringNetwork() {
  platform.pathMonitor.start(*monitorQueue, [weak = weak_from_this()](const NetworkPath& path) {
    if (const auto self = weak.lock()) self->pathDidUpdate(path);
  });
}

void AppDelegate::pathDidUpdate(const NetworkPath& path) {
  const NetworkKind network = networkKind(path);
  const bool changed = std::exchange(current.network, network) != network;
  platform.dispatch.mainQueue().async([this, self = shared_from_this(), changed] {
    if (!isAutoConnectEnabled()) {
      presentAutoConnectDisabledState();
      if (changed)
        showNotification(networkChangedTitle, "目前已停用自動重連；需要時請手動點選「立即重新檢查連線」。");
    } else if (changed) {
      reconnectServices(false);
      showNotification(networkChangedTitle, "已自動嘗試重新連接本地服務與反向隧道。");
    } else if (!current.reconnecting) {
      refreshStatus(false);
    }
  });
}

void AppDelegate::reconnectServices(bool showWindow, const std::string& title,
                                    const std::optional<std::string>& extraContent) {
  platform.dispatch.mainQueue().async([self = shared_from_this()] {
    self->current.reconnecting = true;
    self->syncSleepAssertionWithSettings();
    self->show("正在重新連線…", ConnectionLampState::warning);
  });
  runOnWorker(backendCommandLine("refresh"), defaultCommandTimeout, [=, this](const CommandResult& result) {
    // Wait a moment: the status of services that were just started is not meaningful yet.
    platform.dispatch.mainQueue().asyncAfter(settlingTime, [=, self = shared_from_this()] {
      self->refreshStatus(false);
      if (!showWindow) return;
      std::string content = prettifyOutput(result.output);
      if (extraContent && !extraContent->empty()) content += "\n\n" + *extraContent;
      self->showResultWindow(title, content, !result.ok);
    });
  });
}

void AppDelegate::refreshLiveSessionSnapshot(const Job& completion) {
  const Job finish = completion ? completion : Job([] {});
  const bool isFresh = lastLiveSessionRefreshAt &&
                       platform.clock.continuousTime() - *lastLiveSessionRefreshAt < liveSessionInterval;
  if (liveSessionRefreshInProgress || isFresh) return finish();
  const auto token = loadEnvValue(env::macServiceToken, env::legacyMacServiceToken);
  if (!token) {
    current.session = LiveSession::notConfigured;
    return finish();
  }
  liveSessionRefreshInProgress = true;
  workerQueue->async([self = shared_from_this(), token = *token, finish] {
    const LiveSession session = selectedSession(self->platform.localService.getProjects(token));
    self->platform.dispatch.mainQueue().async([self, session, finish] {
      self->liveSessionRefreshInProgress = false;
      self->lastLiveSessionRefreshAt = self->platform.clock.continuousTime();
      self->current.session = session;
      finish();
    });
  });
}

}  // namespace kestrune
