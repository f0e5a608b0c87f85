#pragma once

#include <list>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Reads and discards the output of processes, for example services, that still run when the command that
/// started them has ended. They may still have the pipe for the command's output open. If the client closed
/// the read end of the pipe, SIGPIPE would end these processes at their next write. Main thread, except
/// `add`.
class LeftoverPipes {
 public:
  /// The largest number of pipes. When another pipe is added, the oldest pipe is closed, and the process that
  /// writes to it gets SIGPIPE.
  static constexpr std::size_t limit = 16;

  explicit LeftoverPipes(EventLoop& givenLoop) : loop(givenLoop) {}

  /// Takes over a non-blocking read end. Closes it when no process has the write end open. Any thread.
  void add(FileDescriptor readEnd);

 private:
  EventLoop& loop;
  std::list<EventSource> pipes;  ///< oldest first; the handler of each owns the read end
};

}  // namespace kestrune
