#pragma once

#include <deque>
#include <mutex>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Discards what is written to pipes that a command's descendants hold after its output was read. A service
/// that keeps its standard output would die of SIGPIPE if their read ends were closed. Main thread, except
/// `add`.
class LeftoverPipes {
 public:
  /// How many pipes are read. One more closes the oldest, and who writes to it gets SIGPIPE.
  static constexpr std::size_t limit = 16;

  explicit LeftoverPipes(EventLoop& loop);
  LeftoverPipes(const LeftoverPipes&) = delete;
  LeftoverPipes& operator=(const LeftoverPipes&) = delete;

  /// Takes a read end, which does not block. It is closed when nobody can write to the pipe any more. Any
  /// thread.
  void add(FileDescriptor readEnd);

 private:
  void watch();
  void discard();

  EventLoop& loop;
  const FileDescriptor readable;  // an epoll instance with all pipes, so that any thread can add one
  EventSource source;
  EventSource pause;
  std::mutex mutex;
  std::deque<FileDescriptor> pipes;  // the oldest first; guarded by mutex
};

}  // namespace kestrune
