#include "adapters/children/OutputPipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kestrune {

namespace {

constexpr std::size_t promisedRoom = 65536;  // bytes

}  // namespace

int OutputPipe::open() {
  int descriptors[2];
  if (pipe2(descriptors, O_CLOEXEC) != 0) return errno;
  readEnd.reset(descriptors[0]);
  writeEnd.reset(descriptors[1]);
  return fcntl(readEnd.get(), F_SETFL, O_NONBLOCK) == 0 ? 0 : errno;
}

void OutputPipe::makeRoom() {
  static const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  pollfd writable{writeEnd.get(), POLLOUT, 0};
  if (!writeEnd || poll(&writable, 1, 0) != 0) return;
  int queued = 0;
  ioctl(readEnd.get(), FIONREAD, &queued);
  const std::size_t written = bytes.size() + static_cast<std::size_t>(queued);
  if (written >= promisedRoom) return;
  // Reading less than a page might free no space.
  std::string some(std::max(page, promisedRoom - written), '\0');
  const ssize_t count = read(readEnd.get(), some.data(), some.size());
  if (count > 0) bytes.append(some, 0, static_cast<std::size_t>(count));
}

void OutputPipe::drain(std::size_t room, std::vector<char>& buffer,
                       std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const ssize_t count = read(readEnd.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) return;
    if (count <= 0) return readEnd.reset();
    const auto kept = std::min(static_cast<std::size_t>(count), room);
    bytes.append(buffer.data(), kept);
    room -= kept;
    if (kept < static_cast<std::size_t>(count)) cut = true;
    // A process may write faster than this reads.
    if (cut && std::chrono::steady_clock::now() >= deadline) return;
  }
}

}  // namespace kestrune
