#pragma once

#include <string>
#include <string_view>

#include "ports/Clock.h"
#include "ports/MainBundle.h"
#include "ports/Process.h"
#include "ports/ServiceControl.h"

// Finds the backend's folder, builds shell lines, and runs them. One line runs the backend's command-line
// client; another stops the backend's services. Any thread.

namespace kestrune {

/// The backend's folder, and a description of the rule that chose the folder.
struct RepoLocation {
  std::string path;
  const char* rule;
};

/// Returns the folder that KESTRUNE_REPO_PATH names; else the part of the application's path before the last
/// "/dist/"; else the working directory. Does not check that the folder exists.
RepoLocation locateRepo(const MainBundle& mainBundle);

/// The file in the backend's folder that activates the backend's virtual environment.
inline constexpr auto environmentScript = ".venv/bin/activate";

/// Returns a shell line that runs a subcommand of the backend's command-line client, kestrune-mac-client. If
/// this program is missing or fails, the line runs the same subcommand of the legacy client,
/// halvask-mac-client.
std::string clientCommand(std::string_view subcommand);

/// Returns a shell line that enters the backend's folder, activates its virtual environment and runs the line
/// of `clientCommand`. `repoPath` must not contain a single quote: it is quoted, but not escaped.
std::string backendCommandLine(const std::string& repoPath, std::string_view subcommand);

/// Returns a shell script that ends all services and processes of the backend. The script exits with status
/// 0 even if a service or process could not be ended.
std::string stopScript(const ServiceControl& control);

/// The result of one shell command. `ok`: whether the command exited with status 0 before the timeout.
/// `output`: what the command printed; if it printed no text or could not be started, a message for the user.
struct CommandResult {
  bool ok = false;
  std::string output;

  bool operator==(const CommandResult&) const = default;
};

inline constexpr Seconds defaultCommandTimeout{12.0};
inline constexpr Seconds commandPollInterval{0.05};
/// Appended to the output of a command that was ended at its time limit.
inline constexpr auto commandTimedOut = "命令逾時，已停止等待。";

/// Runs a line in a login shell, and waits until the shell ends. After `timeout`, sends signals that end the
/// shell and its process group, and returns about 0.2 s later. If another process keeps an output pipe of the
/// shell open, returns at most 1 s after the shell's end. Blocks; any thread.
CommandResult runShellCommand(Processes& processes, Clock& clock, const std::string& commandLine,
                              Seconds timeout = defaultCommandTimeout);

/// Returns a command's output, trimmed; empty when the output is not UTF-8. Pure.
std::string commandText(const std::string& bytes);

}  // namespace kestrune
