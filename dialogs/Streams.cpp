#include "dialogs/Streams.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

namespace kestrune::dialogs {

namespace {

constexpr std::size_t pieceSize = 65536;  // bytes; the usual capacity of a pipe

}  // namespace

LineReader::LineReader(int descriptor, std::function<void(const std::string&)> takeLine,
                       std::function<void()> takeEnd)
    : notifier(descriptor, QSocketNotifier::Read), onLine(std::move(takeLine)), onEnd(std::move(takeEnd)) {
  QObject::connect(&notifier, &QSocketNotifier::activated, &notifier, [this] { read(); });
}

void LineReader::read() {
  // One read per event cannot block. So O_NONBLOCK is not set: it would also apply to the other processes
  // that share this open file, such as a terminal.
  char piece[pieceSize];
  const ssize_t count = ::read(static_cast<int>(notifier.socket()), piece, sizeof piece);
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (count <= 0) {
    stop();
    return onEnd();
  }
  for (std::string_view rest(piece, static_cast<std::size_t>(count)); !rest.empty();) {
    const auto end = rest.find('\n');
    begun += rest.substr(0, end);
    if (end == std::string_view::npos) return;
    rest.remove_prefix(end + 1);
    onLine(std::exchange(begun, {}));
    if (!notifier.isEnabled()) return;
  }
}

bool writeLine(int descriptor, std::string line) {
  line += '\n';
  for (std::string_view rest(line); !rest.empty();) {
    const ssize_t count = ::write(descriptor, rest.data(), rest.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) {
      // Another process has set O_NONBLOCK on the shared open file: wait until it is writable.
      pollfd room{descriptor, POLLOUT, 0};
      poll(&room, 1, -1);
      continue;
    }
    if (count < 0) return false;
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace kestrune::dialogs
