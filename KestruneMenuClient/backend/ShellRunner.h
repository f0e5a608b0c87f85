#pragma once

#include <string>

#include "ports/Clock.h"
#include "ports/Process.h"

namespace kestrune {

/// The result of one shell command. `ok` is true if the command exited with status 0 before the timeout.
/// `output` is never empty after `runShellCommand`.
struct CommandResult {
  bool ok = false;
  std::string output;

  bool operator==(const CommandResult&) const = default;
};

inline constexpr Seconds defaultCommandTimeout{12.0};
/// The interval at which a running command is polled.
inline constexpr Seconds commandPollInterval{0.05};
/// Appended to the output of a command that was stopped at its time limit.
inline constexpr auto commandTimedOut = "命令逾時，已停止等待。";

/// Runs a line in a login shell and waits for the shell's end. Ends the shell at `timeout`, and then returns
/// within about 0.2 s. If a service that the shell started keeps a pipe open, returns at most 1 s after the
/// shell's end. The result reports every failure. Blocks; any thread.
CommandResult runShellCommand(Processes& processes, Clock& clock, const std::string& commandLine,
                              Seconds timeout = defaultCommandTimeout);

/// Returns a command's output, trimmed; empty when the output is not UTF-8. Pure.
std::string commandText(const std::string& bytes);

}  // namespace kestrune
