#include "KestruneMenuClient/backend/Backend.h"

#include <utility>

#include "text/Text.h"

namespace kestrune {

/// The labels of the backend's services, current and legacy, in the order in which they are unloaded.
constexpr const char* serviceLabels[] = {
    "com.kestrune.mac-service", "com.kestrune.mac-tunnel", "com.kestrune.desktop-bridge",
    "com.halvask.mac-service",  "com.halvask.mac-tunnel",  "com.halvask.desktop-bridge",
};

/// Each process of the backend has one of these texts in its command line. The last text is the tunnel's
/// argument to `ssh -R`.
constexpr const char* processPatterns[] = {
    "kestrune-mac-service",   "kestrune-desktop-bridge",        "halvask-mac-service",
    "halvask-desktop-bridge", "127.0.0.1:18765:127.0.0.1:8765",
};

constexpr int listeningPorts[] = {8765, 8766};

constexpr Seconds graceAfterTerminate{0.2};
// How long to wait for end of file on the pipes after the shell has ended. A service that the shell started
// may keep a pipe open, and then there is no end of file.
constexpr Seconds pipePatience{1.0};

RepoLocation locateRepo(const MainBundle& mainBundle) {
  const std::string path = mainBundle.environmentVariable("KESTRUNE_REPO_PATH").value_or("");
  if (!trimmed(path).empty()) return {path, "named by KESTRUNE_REPO_PATH"};
  const std::string bundlePath = mainBundle.bundlePath();
  if (const auto dist = bundlePath.rfind("/dist/"); dist != std::string::npos)
    return {bundlePath.substr(0, dist), "above the last \"dist\" in the path of the program"};
  return {mainBundle.currentDirectoryPath(), "the working directory"};
}

std::string clientCommand(std::string_view subcommand) {
  const std::string argument(subcommand);
  return "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client " + argument +
         " || halvask-mac-client " + argument + "; }";
}

std::string backendCommandLine(const std::string& repoPath, std::string_view subcommand) {
  return "cd '" + repoPath + "' && source " + environmentScript + " && " + clientCommand(subcommand);
}

std::string stopScript(const ServiceControl& control) {
  std::string script;
  const auto append = [&script](const std::string& line) { script += (script.empty() ? "" : "\n") + line; };
  // Unload the services first: the service manager would restart the processes of a loaded service.
  for (const char* const label : serviceLabels) append(control.unloadLine(label));
  for (const char* const pattern : processPatterns) append(control.endMatchingLine(pattern));
  for (const int port : listeningPorts) append(control.killListenersLine(port));
  return script;
}

CommandResult runShellCommand(Processes& processes, Clock& clock, const std::string& commandLine,
                              Seconds timeout) {
  const auto launched = processes.launch("/bin/bash", {"-lc", commandLine});
  if (!launched) return {false, launched.reason()};
  Process& child = **launched;

  const Seconds deadline = clock.awakeTime() + timeout;
  while (child.isRunning() && clock.awakeTime() < deadline) clock.sleep(commandPollInterval);

  const bool timedOut = child.isRunning();
  if (timedOut) {
    child.terminate();
    clock.sleep(graceAfterTerminate);
    if (child.isRunning()) child.interrupt();
    // Also end the shell's children. Otherwise they would keep running after each command that times out.
    child.terminateGroup();
  }

  std::string text = commandText(child.readOutput(timedOut ? Seconds{0} : pipePatience));
  if (timedOut) return {false, text.empty() ? commandTimedOut : text + "\n" + commandTimedOut};
  return {child.terminationStatus() == 0, text.empty() ? "沒有輸出。" : std::move(text)};
}

std::string commandText(const std::string& bytes) {
  return std::string(isValidUtf8(bytes) ? trimmed(bytes) : std::string_view());
}

}  // namespace kestrune
