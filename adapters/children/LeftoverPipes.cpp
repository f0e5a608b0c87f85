#include "adapters/children/LeftoverPipes.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace kestrune {

namespace {

constexpr std::size_t mostAtOnce = 65536;  // bytes that are read from a pipe at a time
// The pause between two reads. Without it, a service that writes without end would keep the loop busy, and a
// service that writes a line now and then would wake the loop for each line.
constexpr Seconds interval{0.05};

/// Reads from the pipe and discards the bytes. Returns false at end of file or on an error.
bool readAway(const FileDescriptor& pipe, std::vector<char>& buffer) {
  const ssize_t count = read(pipe.get(), buffer.data(), buffer.size());
  return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

}  // namespace

LeftoverPipes::LeftoverPipes(EventLoop& givenLoop) : loop(givenLoop), readable(epoll_create1(EPOLL_CLOEXEC)) {
  watch();
}

void LeftoverPipes::add(FileDescriptor readEnd) {
  const std::lock_guard lock(mutex);
  if (pipes.size() == limit) pipes.pop_front();
  epoll_event event{.events = EPOLLIN, .data = {}};
  // If this fails (ENOMEM), the pipe does not wake the loop, and is read when another pipe becomes readable.
  epoll_ctl(readable.get(), EPOLL_CTL_ADD, readEnd.get(), &event);
  pipes.push_back(std::move(readEnd));
}

void LeftoverPipes::watch() {
  source = loop.onDescriptor(readable.get(), EPOLLIN, [this] {
    discard();
    source.reset();
    pause = loop.after(interval, [this] { watch(); });
  });
}

void LeftoverPipes::discard() {
  std::vector<char> buffer(mostAtOnce);
  const std::lock_guard lock(mutex);
  std::erase_if(pipes, [&buffer](const FileDescriptor& each) { return !readAway(each, buffer); });
}

}  // namespace kestrune
