#include "adapters/children/LeftoverPipes.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>
#include <vector>

namespace kestrune {

namespace {

constexpr std::size_t mostAtOnce = 65536;  // bytes that are read from a pipe at a time
// The least time in microseconds between two reads of a pipe. Without it, a service that writes without end
// would keep the loop busy, and a service that writes a line now and then would wake the loop for each line.
constexpr std::uint64_t interval = 50'000;

/// Reads from the pipe and discards the bytes. Returns false at end of file, or on an error other than EAGAIN
/// and EINTR.
bool readAway(const FileDescriptor& pipe) {
  std::vector<char> buffer(mostAtOnce);
  const ssize_t count = read(pipe.get(), buffer.data(), buffer.size());
  return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

}  // namespace

void LeftoverPipes::add(FileDescriptor readEnd) {
  loop.mainQueue().async([this, shared = std::make_shared<FileDescriptor>(std::move(readEnd))] {
    if (pipes.size() == limit) pipes.pop_front();
    const auto pipe = pipes.insert(pipes.end(), {std::move(*shared)});
    pipe->readable = loop.onDescriptor(pipe->readEnd.get(), EPOLLIN, [this, pipe] {
      if (!readAway(pipe->readEnd)) pipes.erase(pipe);
    });
    sd_event_source_set_ratelimit(pipe->readable.get(), interval, 1);
  });
}

}  // namespace kestrune
