#pragma once

#include <string>
#include <string_view>

#include "KestruneMenuClient/status/Results.h"
#include "platform/Clock.h"
#include "platform/Process.h"

namespace kestrune {

inline constexpr Seconds defaultCommandTimeout{12.0};

/// Runs a line in a login shell and waits for it: about 0.2 s longer than `timeout` at most, or 1 s where a
/// service that the line left behind keeps its pipes open. Never fails: what went wrong is in the result.
/// Blocks; any thread.
CommandResult runShellCommand(Processes& processes, Clock& clock, const std::string& commandLine,
                              Seconds timeout = defaultCommandTimeout);

/// `text` as a single word of a shell line. Pure.
std::string shellEscape(std::string_view text);

}  // namespace kestrune
