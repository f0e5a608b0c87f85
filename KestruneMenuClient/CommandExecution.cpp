#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/backend/BackendCommands.h"
#include "KestruneMenuClient/backend/BackendContract.h"

namespace kestrune {

namespace {

/// Time limit for a program to print its version.
constexpr Seconds trialLimit{2.0};

}  // namespace

CommandResult AppDelegate::runShellCommand(const std::string& commandLine, Seconds timeout) {
  return kestrune::runShellCommand(platform.processes, platform.clock, commandLine, timeout);
}

void AppDelegate::tryProgram(const std::string& executable,
                             const std::function<void(const Result<>&)>& then) {
  auto launched = platform.processes.launch(executable, {"--version"});
  if (!launched) return then(Failure{launched.reason()});
  awaitTrial(std::move(*launched), platform.clock.awakeTime() + trialLimit, then);
}

void AppDelegate::awaitTrial(const std::shared_ptr<Process>& trial, Seconds deadline,
                             const std::function<void(const Result<>&)>& then) {
  const bool isRunning = trial->isRunning();
  if (isRunning && platform.clock.awakeTime() < deadline) {
    return platform.dispatch.mainQueue().asyncAfter(
        commandPollInterval,
        [self = shared_from_this(), trial, deadline, then] { self->awaitTrial(trial, deadline, then); });
  }
  if (isRunning) {
    trial->terminateGroup();
    return then(Failure{commandTimedOut});
  }
  const int status = trial->terminationStatus();
  if (status == 0) return then(Done{});
  const std::string text = commandText(trial->readOutput(Seconds{0}));
  then(Failure{text.empty() ? "程式以狀態 " + std::to_string(status) + " 結束。" : text});
}

std::string AppDelegate::shellEscape(std::string_view text) {
  return kestrune::shellEscape(text);
}

std::string AppDelegate::kestruneClientCommand(std::string_view subcommand) {
  return clientCommand(subcommand);
}

std::string AppDelegate::backendCommandLine(std::string_view subcommand) const {
  return kestrune::backendCommandLine(repoPath, subcommand);
}

std::string AppDelegate::backendServiceStopCommand() const {
  const ServiceControl& control = platform.serviceControl;
  std::string script;
  const auto append = [&script](const std::string& line) { script += (script.empty() ? "" : "\n") + line; };
  // Unload services first, or the service manager would restart the processes that are ended below.
  for (const auto* label : backend::serviceLabels) append(control.unloadLine(label));
  for (const auto* pattern : backend::processPatterns) append(control.endMatchingLine(pattern));
  for (const int port : backend::ports) append(control.killListenersLine(port));
  return script;
}

void AppDelegate::stopBackendServicesSynchronously() {
  runShellCommand(backendServiceStopCommand(), stopTimeout);
}

}  // namespace kestrune
