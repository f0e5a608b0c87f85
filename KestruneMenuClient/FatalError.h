#pragma once

namespace kestrune {

/// Aborts because of a programming error; prints `message` on standard error.
[[noreturn]] void fatalError(const char* message);

}  // namespace kestrune
