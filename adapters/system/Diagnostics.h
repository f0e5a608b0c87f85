#pragma once

#include <string>

namespace kestrune {

/// Says a fault of the host, or of the start, on standard error: in one line, and each only once in the life
/// of the process; not at all while standard error takes nothing, and never waits for that. Never give it a
/// command's output, a field's text or a token. Any thread.
void reportOnce(const std::string& message);

}  // namespace kestrune
