#pragma once

#include <unistd.h>

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

}  // namespace kestrune
