#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/BackendContract.h"
#include "KestruneMenuClient/Text.h"

namespace kestrune {

namespace {

constexpr Seconds pollInterval{0.05};
constexpr Seconds graceAfterTerminate{0.2};
// A service that the command left behind may keep a pipe open for as long as it runs.
constexpr Seconds pipePatience{1.0};

constexpr auto noOutput = "沒有輸出。";
constexpr auto timedOutNotice = "命令逾時，已停止等待。";

}  // namespace

CommandResult AppDelegate::runShellCommand(const std::string& commandLine, Seconds timeout) {
  const auto launched = platform.processes.launch("/bin/bash", {"-lc", commandLine});
  if (!launched.process) return {false, launched.error};
  Process& child = *launched.process;

  const Seconds deadline = platform.clock.awakeTime() + timeout;
  while (child.isRunning() && platform.clock.awakeTime() < deadline) platform.clock.sleep(pollInterval);

  const bool timedOut = child.isRunning();
  if (timedOut) {
    child.terminate();
    platform.clock.sleep(graceAfterTerminate);
    if (child.isRunning()) child.interrupt();
    // What the shell started would otherwise outlive it, one more with each refresh.
    child.terminateGroup();
  }

  const std::string bytes = child.readOutput(timedOut ? Seconds{0} : pipePatience);
  std::string text(isValidUtf8(bytes) ? trimmed(bytes) : std::string_view());
  if (timedOut) return {false, text.empty() ? timedOutNotice : text + "\n" + timedOutNotice};
  return {child.terminationStatus() == 0, text.empty() ? noOutput : std::move(text)};
}

std::string AppDelegate::shellEscape(std::string_view text) {
  return "'" + replacingAll(text, "'", "'\"'\"'") + "'";
}

std::string AppDelegate::kestruneClientCommand(std::string_view subcommand) {
  const std::string client = backend::clientProgram;
  const std::string legacyClient = backend::legacyClientProgram;
  const std::string argument(subcommand);
  return "{ command -v " + client + " >/dev/null 2>&1 && " + client + " " + argument + " || " + legacyClient +
         " " + argument + "; }";
}

std::string AppDelegate::backendCommandLine(std::string_view subcommand) const {
  return "cd '" + repoPath + "' && source .venv/bin/activate && " + kestruneClientCommand(subcommand);
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
