#include "KestruneMenuClient/status/StatusCheck.h"

#include <utility>

#include "KestruneMenuClient/backend/BackendCommands.h"
#include "KestruneMenuClient/backend/ShellRunner.h"
#include "KestruneMenuClient/settings/EnvFile.h"
#include "KestruneMenuClient/settings/EnvKeys.h"
#include "KestruneMenuClient/status/LiveSession.h"
#include "KestruneMenuClient/status/PathDescription.h"
#include "KestruneMenuClient/status/StatusReport.h"

namespace kestrune {

StatusCheck::StatusCheck(Platform& givenPlatform)
    : platform(givenPlatform),
      preferences(platform.userDefaults),
      repoPath(locateRepo(platform.mainBundle).path),
      pathMonitor(platform.pathMonitors.makePathMonitor()),
      monitorQueue(platform.dispatch.makeSerialQueue("kestrune.menu.monitor", QualityOfService::standard,
                                                     QueueTarget::mainThread)),
      workerQueue(platform.dispatch.makeSerialQueue("kestrune.menu.worker", QualityOfService::userInitiated,
                                                    QueueTarget::ownThread)) {
  found.setCodex({});
}

void StatusCheck::run(const Completion& completion) {
  if (std::exchange(networkIsWatched, true)) return askBackend(completion);
  pathMonitor->start(*monitorQueue, [weak = weak_from_this(), completion](const NetworkPath& path) {
    const auto self = weak.lock();
    if (!self) return;
    const bool isFirst = self->found.network.empty();
    self->found.network = pathDescription(path);
    if (isFirst) self->askBackend(completion);
  });
}

void StatusCheck::askBackend(const Completion& completion) {
  found.officialMode = preferences.isOfficialConnectionMode();
  found.autoConnect = preferences.isAutoConnectEnabled();
  if (!found.autoConnect) {
    found.lamp = ConnectionLampState::warning;
    found.status = disabledStatus;
    found.setSession(LiveSession::disabled);
    return completion(found);
  }
  const auto env = EnvFile::in(platform.fileManager.contents(repoPath + "/.env"));
  const auto token = env ? env->value(env::macServiceToken, env::legacyMacServiceToken) : std::nullopt;
  workerQueue->async([self = shared_from_this(), token, completion] {
    const CommandResult result = runShellCommand(self->platform.processes, self->platform.clock,
                                                 backendCommandLine(self->repoPath, "status"));
    const LiveSession session =
        token ? selectedSession(self->platform.localService.getProjects(*token)) : LiveSession::notConfigured;
    self->platform.dispatch.mainQueue().async(
        [self, completion, session, report = StatusReport(result.ok, result.output)] {
          self->found.lamp = report.lamp;
          self->found.status = report.text;
          self->found.checkedAt = self->platform.clock.calendarTime();
          self->found.setCodex(report.codex);
          self->found.setSession(session);
          completion(self->found);
        });
  });
}

void StatusCheck::abandon() {
  pathMonitor->cancel();
  workerQueue->close();
  platform.processes.reserveForThisThread();
}

}  // namespace kestrune
