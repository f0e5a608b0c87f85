#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/backend/BackendCommands.h"
#include "KestruneMenuClient/backend/BackendContract.h"

namespace kestrune {

CommandResult AppDelegate::runShellCommand(const std::string& commandLine, Seconds timeout) {
  return kestrune::runShellCommand(platform.processes, platform.clock, commandLine, timeout);
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
  // Services first, or the service manager would start again what is ended below.
  for (const auto* label : backend::serviceLabels) append(control.unloadLine(label));
  for (const auto* pattern : backend::processPatterns) append(control.endMatchingLine(pattern));
  for (const int port : backend::ports) append(control.killListenersLine(port));
  return script;
}

void AppDelegate::stopBackendServicesSynchronously() {
  runShellCommand(backendServiceStopCommand(), stopTimeout);
}

}  // namespace kestrune
