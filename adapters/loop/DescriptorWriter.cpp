#include "adapters/loop/DescriptorWriter.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kestrune {

bool DescriptorWriter::write(std::string_view text) {
  if (!pending.empty() && pending.size() - sent + text.size() > limit) {
    errno = ENOBUFS;
    return false;
  }
  if (output) {
    failure = 0;
    pending += text;
    if (!writable) flush();
  }
  errno = failure;
  return failure == 0;
}

/// Writes like write(2), but fails with EAGAIN where write(2) would block.
ssize_t DescriptorWriter::writeSome(std::string_view text) const {
  if (mayBlock) {
    pollfd room{output.get(), POLLOUT, 0};
    if (poll(&room, 1, 0) <= 0) {
      errno = EAGAIN;
      return -1;
    }
    // If poll() reports a blocking terminal, pipe or socket as writable, writing 256 bytes does not block.
    text = text.substr(0, 256);
  }
  return ::write(output.get(), text.data(), text.size());
}

void DescriptorWriter::flush() {
  while (sent < pending.size()) {
    const ssize_t written = writeSome(std::string_view(pending).substr(sent));
    if (written >= 0) {
      sent += static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      // Erase the sent bytes only if they are more than half of `pending`: erase moves all other bytes.
      if (sent > pending.size() / 2) pending.erase(0, std::exchange(sent, 0));
      if (!writable) writable = loop.onDescriptor(output.get(), EPOLLOUT, [this] { flush(); });
      return;
    } else if (errno != EINTR) {
      failure = errno;
      if (failure == ENOSPC || failure == EDQUOT) break;  // keep the descriptor: there may be space later
      // Remove the event source before the descriptor is closed. Otherwise, epoll would keep reporting events
      // while another process shares the open file description.
      writable.reset();
      output.reset();
      break;
    }
  }
  pending.clear();
  sent = 0;
  writable.reset();
}

}  // namespace kestrune
