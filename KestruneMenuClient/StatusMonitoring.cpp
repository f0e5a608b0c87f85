#include <utility>

#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/settings/EnvKeys.h"
#include "KestruneMenuClient/status/LiveSession.h"
#include "KestruneMenuClient/status/PathDescription.h"

namespace kestrune {

namespace {

constexpr Seconds refreshInterval{20.0};
constexpr Seconds settlingTime{1.2};
constexpr Seconds liveSessionInterval{45.0};
constexpr auto networkChangedTitle = "Kestrune 網路已變更";

}  // namespace

// --- report interpretation

ConnectionLampState AppDelegate::inferLampState(const CommandResult& result) {
  return StatusReport(result.ok, result.output).lamp;
}

std::string AppDelegate::prettifyOutput(std::string_view output) {
  return prettified(output);
}

std::optional<std::string> AppDelegate::diagnosticDetail(std::string_view output, std::string_view label) {
  const CodexFinding finding = codexFinding(output, label);
  if (finding.verdict == CodexVerdict::unknown) return std::nullopt;
  return codexRow({label, ""}, finding);
}

std::string AppDelegate::compactDiagnosticDetail(std::string_view detail) {
  return compactDetail(detail);
}

void AppDelegate::updateCodexRuntimeSummaries(std::string_view output) {
  take(StatusReport(true, output));
}

void AppDelegate::take(const StatusReport& report) {
  reportedAt = platform.clock.calendarTime();
  std::string* const summaries[] = {&codexVersionSummary, &codexRemoteControlSummary, &codexAppSummary,
                                    &chatGPTRemoteSummary};
  for (std::size_t i = 0; i < codexItems.size(); ++i)
    *summaries[i] = codexRow(codexItems[i], report.codex[i]);
}

// --- refresh cycle

void AppDelegate::refreshStatus(bool triggerNotification) {
  if (statusRefreshInProgress) return;
  statusRefreshInProgress = true;
  workerQueue->async([self = shared_from_this(), triggerNotification] {
    const CommandResult result = self->runShellCommand(self->backendCommandLine("status"));
    self->platform.dispatch.mainQueue().async(
        [self, triggerNotification, report = StatusReport(result.ok, result.output)] {
          self->statusQueryDidFinish(report, triggerNotification);
        });
  });
}

void AppDelegate::statusQueryDidFinish(const StatusReport& report, bool triggerNotification) {
  take(report);
  if (report.ok) {
    syncSleepAssertionWithSettings();
  } else {
    releaseSleepAssertion();
  }
  refreshLiveSessionSnapshot(
      [self = shared_from_this(), statusText = report.text, lamp = report.lamp, triggerNotification] {
        self->reconnectInProgress = false;
        self->statusRefreshInProgress = false;
        self->rebuildMenu(statusText, lamp, 0);
        self->updateButton(lamp, "Kestrune");
        if (triggerNotification) {
          self->showNotification(networkChangedTitle, "偵測到網路切換，已重新檢查本地服務與隧道狀態。");
        }
      });
}

void AppDelegate::presentAutoConnectDisabledState() {
  releaseSleepAssertion();
  show(LiveSession::disabled);
  rebuildMenu(disabledStatus, ConnectionLampState::warning, 0);
  updateButton(ConnectionLampState::warning, "Kestrune");
}

void AppDelegate::show(const LiveSession& session) {
  currentProjectTitle = session.projectTitle;
  currentThreadName = session.threadName;
}

StatusSnapshot AppDelegate::snapshot(const std::string& statusText, ConnectionLampState state) const {
  return {.lamp = state,
          .status = statusText,
          .officialMode = isOfficialConnectionMode(),
          .codexVersion = codexVersionSummary,
          .codexRemoteControl = codexRemoteControlSummary,
          .codexApp = codexAppSummary,
          .chatGPTRemote = chatGPTRemoteSummary,
          .project = currentProjectTitle,
          .thread = currentThreadName,
          .network = lastPathDescription,
          .keepsAwake = sleepAssertionActive,
          .autoConnect = isAutoConnectEnabled(),
          .reconnecting = reconnectInProgress,
          .checkedAt = reportedAt};
}

void AppDelegate::startPeriodicRefresh() {
  if (refreshTimer) refreshTimer->invalidate();
  refreshTimer = platform.timers.scheduleRepeating(refreshInterval, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->periodicRefreshDidTick();
  });
}

void AppDelegate::periodicRefreshDidTick() {
  if (reconnectInProgress) return;
  if (isAutoConnectEnabled()) {
    refreshStatus(false);
  } else {
    presentAutoConnectDisabledState();
  }
}

void AppDelegate::refreshNow() {
  setAutoConnectEnabled(true);
  reconnectServices(true);
}

// --- network changes

void AppDelegate::startMonitoringNetwork() {
  pathMonitor->start(*monitorQueue, [weak = weak_from_this()](const NetworkPath& path) {
    if (const auto self = weak.lock()) self->pathDidUpdate(path);
  });
}

void AppDelegate::pathDidUpdate(const NetworkPath& path) {
  const std::string description = pathDescription(path);
  const bool changed = description != lastPathDescription;
  lastPathDescription = description;
  platform.dispatch.mainQueue().async(
      [self = shared_from_this(), changed] { self->actOnPathUpdate(changed); });
}

void AppDelegate::actOnPathUpdate(bool changed) {
  if (isAutoConnectEnabled()) {
    if (changed) {
      reconnectServices(false);
      showNotification(networkChangedTitle, "已自動嘗試重新連接本地服務與反向隧道。");
    } else if (!reconnectInProgress) {
      refreshStatus(false);
    }
  } else {
    presentAutoConnectDisabledState();
    if (changed) {
      showNotification(networkChangedTitle, "目前已停用自動重連；需要時請手動點選「立即重新檢查連線」。");
    }
  }
}

void AppDelegate::reconnectServices(bool showWindow, const std::string& title,
                                    const std::optional<std::string>& extraContent) {
  MainQueue& mainQueue = platform.dispatch.mainQueue();
  mainQueue.async([self = shared_from_this()] {
    self->reconnectInProgress = true;
    self->syncSleepAssertionWithSettings();
    self->rebuildMenu("正在重新連線…", ConnectionLampState::warning, 0);
    self->updateButton(ConnectionLampState::warning, "Kestrune");
  });
  workerQueue->async([self = shared_from_this(), &mainQueue, showWindow, title, extraContent] {
    CommandResult outcome = self->runShellCommand(self->backendCommandLine("refresh"));
    mainQueue.async([=, &mainQueue, result = std::move(outcome)]() mutable {
      // Services that were just started need a moment before their status is meaningful.
      mainQueue.asyncAfter(settlingTime, [=, result = std::move(result)] {
        self->refreshStatus(false);
        if (!showWindow) return;
        std::string content = prettifyOutput(result.output);
        if (extraContent && !extraContent->empty()) content += "\n\n" + *extraContent;
        self->showResultWindow(title, content, !result.ok);
      });
    });
  });
}

// --- live snapshot

void AppDelegate::refreshLiveSessionSnapshot(const Job& completion) {
  const auto finish = [&completion] {
    if (completion) completion();
  };
  if (liveSessionRefreshInProgress) return finish();
  if (lastLiveSessionRefreshAt &&
      platform.clock.continuousTime() - *lastLiveSessionRefreshAt < liveSessionInterval) {
    return finish();
  }
  const auto token = loadEnvValue(env::macServiceToken, env::legacyMacServiceToken);
  if (!token) {
    show(LiveSession::notConfigured);
    return finish();
  }
  liveSessionRefreshInProgress = true;
  workerQueue->async([self = shared_from_this(), token = *token, completion] {
    const LiveSession session = selectedSession(self->platform.localService.getProjects(token));
    self->platform.dispatch.mainQueue().async([self, session, completion] {
      self->liveSessionRefreshInProgress = false;
      self->lastLiveSessionRefreshAt = self->platform.clock.continuousTime();
      self->show(session);
      if (completion) completion();
    });
  });
}

std::string AppDelegate::compactThreadName(std::string_view name) {
  return kestrune::compactThreadName(name);
}

}  // namespace kestrune
