#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace kestrune {

inline std::error_code systemError(int number) {
  return {number, std::system_category()};
}

/// What `errno` says.
inline std::error_code lastError() {
  return systemError(errno);
}

/// The system's description of an `errno` value, in the user's language.
inline std::string describe(int number) {
  return systemError(number).message();
}

}  // namespace kestrune
