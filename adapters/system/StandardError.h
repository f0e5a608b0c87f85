#pragma once

#include <string>

namespace kestrune {

/// Prints a fault of the host on standard error, in one line, each message once per process. Prints nothing,
/// and does not block, while standard error accepts no output. Never pass a command's output, the text of a
/// field or a token. Any thread.
void reportOnce(const std::string& message);

}  // namespace kestrune
