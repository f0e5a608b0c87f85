#pragma once

namespace kestrune {

/// Stops the process because of a programming error; `message` goes to standard error.
[[noreturn]] void fatalError(const char* message);

}  // namespace kestrune
