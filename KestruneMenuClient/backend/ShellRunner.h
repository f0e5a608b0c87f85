#pragma once

#include <string>
#include <string_view>

#include "KestruneMenuClient/backend/Results.h"
#include "ports/Clock.h"
#include "ports/Process.h"

namespace kestrune {

inline constexpr Seconds defaultCommandTimeout{12.0};
/// Between two looks at a command that runs.
inline constexpr Seconds commandPollInterval{0.05};
/// What stands for, or behind, the output of a command that was stopped at its time limit.
inline constexpr auto commandTimedOut = "命令逾時，已停止等待。";

/// Runs a line in a login shell and waits for it: about 0.2 s longer than `timeout` at most, or 1 s where a
/// service that the line left behind keeps its pipes open. Never fails: what went wrong is in the result.
/// Blocks; any thread.
CommandResult runShellCommand(Processes& processes, Clock& clock, const std::string& commandLine,
                              Seconds timeout = defaultCommandTimeout);

/// What a command wrote, trimmed; empty when it is not UTF-8. Pure.
std::string commandText(const std::string& bytes);

/// `text` as a single word of a shell line. Pure.
std::string shellEscape(std::string_view text);

}  // namespace kestrune
