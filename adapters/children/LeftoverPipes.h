#pragma once

#include <unistd.h>

#include <cerrno>
#include <list>
#include <memory>
#include <utility>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/System.h"

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
  void add(FileDescriptor readEnd) {
    loop.mainQueue().async([this, pipe = std::make_shared<FileDescriptor>(std::move(readEnd))] {
      if (pipes.size() == limit) pipes.pop_front();
      const auto readable = pipes.emplace(pipes.end());
      *readable = loop.onDescriptor(pipe->get(), EPOLLIN, [this, pipe, readable] {
        char buffer[65536];
        const ssize_t count = read(pipe->get(), buffer, sizeof buffer);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) pipes.erase(readable);
      });
      sd_event_source_set_ratelimit(readable->get(), readInterval, 1);
    });
  }

 private:
  // The least time in microseconds between two reads of a pipe. Without it, a service that writes without end
  // would keep the loop busy, and a service that writes a line now and then would wake the loop for each
  // line.
  static constexpr std::uint64_t readInterval = 50'000;

  EventLoop& loop;
  std::list<EventSource> pipes;  ///< oldest first; the handler of each owns the read end
};

}  // namespace kestrune
