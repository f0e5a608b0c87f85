#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// The pipe for the standard output or standard error of a child. Used by one thread at a time.
struct OutputPipe {
  FileDescriptor readEnd;   ///< non-blocking; closed at end of file
  FileDescriptor writeEnd;  ///< polled to see whether the pipe is full; closed before `drain`
  std::string bytes{};      ///< read so far
  bool cut = false;         ///< more was read than kept

  /// Returns an `errno` value; 0 on success.
  int open();

  /// Lets the child write at least 64 KiB: reads from a full pipe that has held less. The kernel gives a user
  /// over pipe-user-pages-soft pipes of one or two pages. A page counts as full when the next write does not
  /// fit.
  void makeRoom();

  /// Reads until the pipe is empty, through `buffer`, and keeps at most `room` bytes. Stops at the deadline
  /// once bytes have been discarded.
  void drain(std::size_t room, std::vector<char>& buffer, std::chrono::steady_clock::time_point deadline);
};

}  // namespace kestrune
