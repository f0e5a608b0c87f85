#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace kestrune {

/// Owns a file descriptor. The destructor closes it.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : value(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : value(std::exchange(other.value, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(std::exchange(other.value, -1));
    return *this;
  }
  ~FileDescriptor() { reset(); }

  explicit operator bool() const { return value >= 0; }
  int get() const { return value; }  ///< -1 when there is no descriptor

  void reset(int descriptor = -1) {
    if (value >= 0) ::close(value);
    value = descriptor;
  }

 private:
  int value = -1;
};

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

/// Reads the whole file at `path` into `contents`. Fails if the file has more than `FileManager::sizeLimit`
/// bytes. On failure, `contents` is unchanged. Any thread. Do not use std::ifstream instead: libstdc++ is
/// linked statically, and its streams would add 0.4 MB of code.
std::error_code readWholeFile(const std::string& path, std::string& contents);

}  // namespace kestrune
