#pragma once

#include <string>

#include "ports/Clock.h"
#include "ports/Process.h"

namespace kestrune {

/// The result of one shell command. `ok`: it exited with status 0 before the timeout. `output` is never
/// empty.
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

/// Runs a line in a login shell and waits for it. Returns at most about 0.2 s after `timeout`, or 1 s after
/// the end of the shell if a service that it started keeps the pipes open. The result reports every failure.
/// Blocks; any thread.
CommandResult runShellCommand(Processes& processes, Clock& clock, const std::string& commandLine,
                              Seconds timeout = defaultCommandTimeout);

/// A command's output, trimmed; empty when it is not UTF-8. Pure.
std::string commandText(const std::string& bytes);

}  // namespace kestrune
