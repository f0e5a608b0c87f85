#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// The pipe of one of a child's outputs. Used by one thread at a time.
struct OutputPipe {
  FileDescriptor readEnd;   ///< does not block; closed when nobody can write to the pipe any more
  FileDescriptor writeEnd;  ///< tells whether the pipe is full; closed before the pipe is read to its end
  std::string bytes{};      ///< what was read so far
  bool cut = false;         ///< more was read than was kept

  /// Returns an `errno` value; 0 on success.
  int open();

  /// Reads from a full pipe to which fewer than 64 KiB were written. The kernel makes pipes of two pages, or
  /// one, for a user who has many; and a page that is partly filled is full when the next write does not fit.
  void makeRoom();

  /// Reads all that is there through `buffer`, and keeps `room` bytes of it at most. Stops at the deadline
  /// when more has come than is kept.
  void drain(std::size_t room, std::vector<char>& buffer, std::chrono::steady_clock::time_point deadline);
};

}  // namespace kestrune
