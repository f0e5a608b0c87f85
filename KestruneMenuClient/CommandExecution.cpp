#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/BackendContract.h"
#include "KestruneMenuClient/Text.h"

namespace kestrune {

namespace {

constexpr Seconds pollInterval{0.05};
constexpr Seconds graceAfterTerminate{0.2};
// A service that the command left behind may keep a pipe open for as long as it runs.
constexpr Seconds pipePatience{1.0};

/// How long a program may take to print its version.
constexpr Seconds trialLimit{2.0};

constexpr auto noOutput = "沒有輸出。";
constexpr auto timedOutNotice = "命令逾時，已停止等待。";

/// What a child wrote, trimmed; empty when it is not UTF-8.
std::string textOf(const std::string& bytes) {
  return std::string(isValidUtf8(bytes) ? trimmed(bytes) : std::string_view());
}

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

  std::string text = textOf(child.readOutput(timedOut ? Seconds{0} : pipePatience));
  if (timedOut) return {false, text.empty() ? timedOutNotice : text + "\n" + timedOutNotice};
  return {child.terminationStatus() == 0, text.empty() ? noOutput : std::move(text)};
}

void AppDelegate::tryProgram(const std::string& executable,
                             const std::function<void(const OperationResult&)>& then) {
  LaunchResult launched = platform.processes.launch(executable, {"--version"});
  if (!launched.process) return then({false, launched.error});
  awaitTrial(std::move(launched.process), platform.clock.awakeTime() + trialLimit, then);
}

void AppDelegate::awaitTrial(const std::shared_ptr<Process>& trial, Seconds deadline,
                             const std::function<void(const OperationResult&)>& then) {
  const bool isRunning = trial->isRunning();
  if (isRunning && platform.clock.awakeTime() < deadline) {
    return platform.dispatch.mainQueue().asyncAfter(
        pollInterval,
        [self = shared_from_this(), trial, deadline, then] { self->awaitTrial(trial, deadline, then); });
  }
  if (isRunning) {
    trial->terminateGroup();
    return then({false, timedOutNotice});
  }
  const int status = trial->terminationStatus();
  if (status == 0) return then({true, ""});
  const std::string text = textOf(trial->readOutput(Seconds{0}));
  then({false, text.empty() ? "程式以狀態 " + std::to_string(status) + " 結束。" : text});
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
