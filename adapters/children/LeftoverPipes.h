#pragma once

#include <list>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Reads and discards the output of processes that go on running after the command that started them. Such a
/// process, for example a service, may have the pipe for the command's output open. If the read end of this
/// pipe were closed, SIGPIPE would end the process at its next write. Main thread, except `add`.
class LeftoverPipes {
 public:
  /// The largest number of pipes. When another pipe is added, the oldest pipe is closed, and the process that
  /// writes to it gets SIGPIPE.
  static constexpr std::size_t limit = 16;

  explicit LeftoverPipes(EventLoop& givenLoop) : loop(givenLoop) {}
  LeftoverPipes(const LeftoverPipes&) = delete;
  LeftoverPipes& operator=(const LeftoverPipes&) = delete;

  /// Takes over a non-blocking read end. Closes it when no process has the write end open. Any thread.
  void add(FileDescriptor readEnd);

 private:
  struct Pipe {
    FileDescriptor readEnd;
    EventSource readable{};
  };

  void watch(FileDescriptor readEnd);

  EventLoop& loop;
  std::list<Pipe> pipes;  ///< oldest first
};

}  // namespace kestrune
