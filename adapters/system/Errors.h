#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace kestrune {

inline std::error_code systemError(int number) {
  return {number, std::system_category()};
}

/// Returns the text of an `errno` value (strerror), in the user's language.
inline std::string describe(int number) {
  return systemError(number).message();
}

/// Prints `message` on standard error, in one line. Call it when something that the client needs has
/// failed, such as a system call or a D-Bus service. Prints the same message only once per process. While
/// standard error accepts no output, prints nothing and does not block. `message` must never contain the
/// output of a command, the text of an input field or a token. Any thread.
void reportOnce(const std::string& message);

}  // namespace kestrune
