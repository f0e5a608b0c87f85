#include "adapters/children/LeftoverPipes.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace kestrune {

// The least time in microseconds between two reads of a pipe. Without it, a service that writes without end
// would keep the loop busy, and a service that writes a line now and then would wake the loop for each line.
constexpr std::uint64_t readInterval = 50'000;

void LeftoverPipes::add(FileDescriptor readEnd) {
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

}  // namespace kestrune
