#include "adapters/loop/DescriptorWriter.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace kestrune {

namespace {

// What a terminal or a pipe that says that it is writable takes without blocking.
constexpr std::size_t safeAmount = 256;  // bytes

}  // namespace

DescriptorWriter::DescriptorWriter(EventLoop& givenLoop, FileDescriptor descriptor, std::size_t givenLimit)
    : loop(givenLoop), output(std::move(descriptor)), limit(givenLimit) {
  struct stat state {};
  if (!output || fstat(output.get(), &state) != 0) return;
  socket = S_ISSOCK(state.st_mode);
  mayBlock =
      (S_ISFIFO(state.st_mode) || S_ISCHR(state.st_mode)) && (fcntl(output.get(), F_GETFL) & O_NONBLOCK) == 0;
}

bool DescriptorWriter::write(std::string_view text) {
  if (!output || (!pending.empty() && pending.size() - sent + text.size() > limit)) return false;
  pending += text;
  if (!writable) flush();
  return static_cast<bool>(output);
}

/// As the system's, but never blocks.
ssize_t DescriptorWriter::writeSome(std::string_view text) const {
  if (socket) return send(output.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (mayBlock) {
    pollfd room{output.get(), POLLOUT, 0};
    if (poll(&room, 1, 0) <= 0) {
      errno = EAGAIN;
      return -1;
    }
    text = text.substr(0, safeAmount);
  }
  return ::write(output.get(), text.data(), text.size());
}

void DescriptorWriter::flush() {
  while (sent < pending.size()) {
    const ssize_t written = writeSome(std::string_view(pending).substr(sent));
    if (written >= 0) {
      sent += static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      // Not each time: what is left may be much.
      if (sent > pending.size() / 2) pending.erase(0, std::exchange(sent, 0));
      if (!writable) writable = loop.onDescriptor(output.get(), EPOLLOUT, [this] { flush(); });
      return;
    } else if (errno != EINTR) {
      // Whoever read this is gone; the supervision goes on. The source goes first: others may have the same
      // file open, and the loop would go on hearing of it.
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
