#pragma once

#include <deque>
#include <mutex>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Reads and discards the output of processes that a command left behind. A service that keeps the command's
/// standard output open would die of SIGPIPE if the read end were closed. Main thread, except `add`.
class LeftoverPipes {
 public:
  /// The most pipes at a time. One more closes the oldest, and the process that writes to it gets SIGPIPE.
  static constexpr std::size_t limit = 16;

  explicit LeftoverPipes(EventLoop& loop);
  LeftoverPipes(const LeftoverPipes&) = delete;
  LeftoverPipes& operator=(const LeftoverPipes&) = delete;

  /// Takes a non-blocking read end, and closes it when no process has the write end open. Any thread.
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
