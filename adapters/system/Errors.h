#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace kestrune {

inline std::error_code systemError(int number) {
  return {number, std::system_category()};
}

inline std::error_code lastError() {
  return systemError(errno);
}

/// Returns the text of an `errno` value (strerror), in the user's language.
inline std::string describe(int number) {
  return systemError(number).message();
}

}  // namespace kestrune
