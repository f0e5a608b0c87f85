#include "KestruneMenuClient/status/StatusCommand.h"

#include "KestruneMenuClient/backend/Backend.h"
#include "KestruneMenuClient/settings/EnvFile.h"
#include "KestruneMenuClient/settings/Preferences.h"

namespace kestrune {

/// While no client runs, --follow calls `checkBackend` as often as a client would refresh its status.
constexpr Seconds checkInterval{20.0};
/// How long to wait for a new client after the old one has ended. A restart of the client takes less.
constexpr Seconds successorPatience{1.0};

/// Returns the status in the format that the user has chosen. `status` is the parsed `json`.
static std::string formatted(const std::string& json, const PublishedStatus& status, StatusFormat format) {
  if (format == StatusFormat::json) return json + "\n";
  if (format == StatusFormat::waybar) return statusForWaybar(status) + "\n";
  std::string text;
  for (const std::string& line : status.lines) text += line + "\n";
  return text;
}

void StatusCommand::heard(const std::string& line) {
  next.reset();
  hasHeard = show(line);
  if (hasHeard) return;
  subscription.reset();
  checkBackend();
}

void StatusCommand::clientIsAbsent() {
  if (!std::exchange(hasHeard, false)) return checkBackend();
  next = platform.dispatch.scheduleRepeating(successorPatience, [this] { checkBackend(); });
}

void StatusCommand::checkBackend() {
  next.reset();
  if (std::exchange(isChecking, true)) return;
  if (found.network != NetworkKind::unknown) return askBackend();
  const auto update = [weak = weak_from_this()](const NetworkPath& path) {
    const auto self = weak.lock();
    if (!self) return;
    const auto before = std::exchange(self->found.network, networkKind(path));
    if (before == NetworkKind::unknown) self->askBackend();
  };
  platform.pathMonitor.start(platform.dispatch.mainQueue(), update);
}

void StatusCommand::askBackend() {
  const Preferences preferences(platform.userDefaults);
  found.officialMode = preferences.isOfficialConnectionMode();
  found.autoConnect = preferences.isAutoConnectEnabled();
  if (!found.autoConnect) {
    found.lamp = ConnectionLampState::warning;
    found.status = disabledStatus;
    found.session = LiveSession::disabled;
    return checkDidFinish();
  }
  const std::string repoPath = locateRepo(platform.mainBundle).path;
  const EnvFile file(platform.fileManager.contents(repoPath + "/.env"));
  const auto token = file.value(env::macServiceToken, env::legacyMacServiceToken);
  workerQueue->async([self = shared_from_this(), token, repoPath] {
    Platform& machine = self->platform;
    const CommandResult result =
        runShellCommand(machine.processes, machine.clock, backendCommandLine(repoPath, "status"));
    const LiveSession session =
        token ? selectedSession(machine.localService.getProjects(*token)) : LiveSession::notConfigured;
    machine.dispatch.mainQueue().async([self, session, report = StatusReport(result.ok, result.output)] {
      self->found.lamp = report.lamp;
      self->found.status = report.text;
      self->found.codex = report.codex;
      self->found.session = session;
      self->found.checkedAt = self->platform.clock.calendarTime();
      self->checkDidFinish();
    });
  });
}

void StatusCommand::checkDidFinish() {
  isChecking = false;
  // If a client has started during the check, drop the result: the client's status is newer.
  if (hasHeard) return;
  show(statusJson(found, false));
  if (options.follow) next = platform.dispatch.scheduleRepeating(checkInterval, [this] { subscribe(); });
}

bool StatusCommand::show(const std::string& json) {
  static constexpr int exitCodes[] = {0, 3, 4};  // for each ConnectionLampState
  const auto status = parseStatusJson(json);
  if (!status) return false;
  code = options.exitZero ? 0 : exitCodes[static_cast<std::size_t>(status->lamp)];
  const std::string text = formatted(json, *status, options.format);
  if (text == shown) return true;
  const bool apart = options.format == StatusFormat::text && !shown.empty();
  shown = text;
  const bool printed = print(apart ? "\n" + text : text);
  if (!printed) code = 1;
  if (printed && options.follow) return true;
  // Nothing more is to be printed, so ignore later lines of the client.
  subscription.reset();
  platform.application->terminate();
  return true;
}

}  // namespace kestrune
