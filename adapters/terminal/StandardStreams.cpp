#include "adapters/terminal/StandardStreams.h"

#include <poll.h>
#include <sys/stat.h>
#include <termios.h>

#include <cerrno>
#include <csignal>
#include <string_view>
#include <utility>

namespace kestrune {

constexpr std::size_t pieceSize = 4096;        // bytes; the most that one read returns
constexpr std::size_t discardLimit = 1 << 20;  // bytes that `discardTyped` discards at most
constexpr std::size_t pendingLimit = 1 << 20;  // bytes of unwritten output; more output is dropped

/// Returns a new descriptor for the same file; empty if `descriptor` is closed. Opens a pipe or a character
/// device (such as a terminal) again with O_NONBLOCK. If that fails, or for another type of file, duplicates
/// `descriptor`: then read(2) and write(2) may block, so the caller must call poll(2) first.
static FileDescriptor openAgain(int descriptor, int accessMode) {
  struct stat state {};
  FileDescriptor own;
  // Do not set O_NONBLOCK by fcntl(2): that changes it for all processes that share the open file
  // description. Do not open a regular file again: a new open file description has its own file offset.
  if (fstat(descriptor, &state) == 0 && (S_ISFIFO(state.st_mode) || S_ISCHR(state.st_mode))) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    own.reset(open(path.c_str(), accessMode | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  }
  if (!own) own.reset(fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
  return own;
}

StandardOutput::StandardOutput(EventLoop& givenLoop, int descriptor)
    : DescriptorWriter(givenLoop, openAgain(descriptor, O_WRONLY), pendingLimit),
      screen(isatty(descriptor) == 1 ? fcntl(descriptor, F_DUPFD_CLOEXEC, 3) : -1) {}

StandardInput::StandardInput(EventLoop& givenLoop)
    : loop(givenLoop), input(openAgain(STDIN_FILENO, O_RDONLY)) {
  const FileDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (nothing) dup2(nothing.get(), STDIN_FILENO);
  // If not ignored, these signals would stop this process when it uses the terminal in the background.
  std::signal(SIGTTIN, SIG_IGN);
  std::signal(SIGTTOU, SIG_IGN);
}

void StandardInput::hideTyping(bool hide) {
  hidden = hide;
  foregroundCheck.reset();
  if (!terminal || !input || (!hidden && !silenced)) return;
  if (isInBackground()) {
    // After `bg`, bash's `fg` sends no SIGCONT, and the echo may be on. So check every 0.2 s while a secret
    // is asked for.
    if (hidden) foregroundCheck = loop.after(Seconds{0.2}, [this] { resume(); });
    return;
  }
  termios settings{};
  if (tcgetattr(input.get(), &settings) != 0) return;
  const bool shown = (settings.c_lflag & ECHO) != 0;
  if (shown) silenced = false;  // there is nothing to undo later
  if (shown != hidden) return;
  settings.c_lflag ^= ECHO;
  if (tcsetattr(input.get(), TCSANOW, &settings) == 0) silenced = hidden;
}

void StandardInput::discardUnfinishedLine() {
  if (!terminal || !readable || isInBackground()) return;
  // Read all finished lines, one per read, until EAGAIN. tcflush empties only the line discipline, but typed
  // bytes may still be in the driver. The last read (EAGAIN) moves them into the line discipline.
  for (std::size_t line = 0; line < lineDisciplineCapacity && readable && readSome(); ++line) {
  }
  if (!lines.empty() || !input) goOn();
  tcflush(input.get(), TCIFLUSH);
  begun = "";
}

void StandardInput::discardTyped() {
  discardUnfinishedLine();
  if (!terminal) {
    // Without the limit, this loop might never end: another process may write to the pipe without end.
    for (std::size_t size = 0; size < discardLimit && input && readSome(); size += pieceSize) {
    }
    // The rest of a discarded line must not count as a whole line: mark the line as too long.
    if (begun != "") begun.reset();
  }
  lines.clear();
}

void StandardInput::start(Reader given) {
  reader = std::move(given);
  if (terminal) continued = loop.onSignal(SIGCONT, [this] { resume(); });
  // Use edge-triggered epoll, which reports new input only once. In the background, input cannot be read, so
  // level-triggered epoll would report it endlessly. SIGCONT or new input wakes the loop later.
  if (input) readable = loop.onDescriptor(input.get(), EPOLLIN | EPOLLET, [this] { goOn(); });
  // epoll refuses regular files and "/dev/null". They never block, so read them right away.
  if (!readable) goOn();
}

/// Called when this process may have come to the foreground. The shell or another program may have changed
/// the terminal's settings meanwhile.
void StandardInput::resume() {
  hideTyping(hidden);
  goOn();
  if (reader.onContinued && !isInBackground()) reader.onContinued();
}

/// Gives one line to `onLine` or, if no line waits, reads once. Does this once per turn of the loop, so that
/// endless input does not delay other events. At the end of the input, calls `onEnd`.
void StandardInput::goOn() {
  if (std::exchange(turnIsDue, true)) return;
  loop.mainQueue().async([this] {
    turnIsDue = false;
    if (!lines.empty()) {
      const std::optional<std::string> line = std::move(lines.front());
      lines.pop_front();
      reader.onLine(line);
      goOn();
    } else if (input) {
      if (readSome()) goOn();
    } else if (reader.onEnd) {
      std::exchange(reader.onEnd, nullptr)();
    }
  });
}

/// Reads once. Returns false when there is nothing more to read now.
bool StandardInput::readSome() {
  if (mayBlock) {
    pollfd data{input.get(), POLLIN, 0};
    if (poll(&data, 1, 0) == 0) return false;
  }
  char buffer[pieceSize];
  const ssize_t count = read(input.get(), buffer, sizeof buffer);
  if (count < 0 && errno == EINTR) return true;
  if (count < 0 && (errno == EAGAIN || (errno == EIO && isInBackground()))) return false;
  if (count <= 0) {
    hideTyping(false);
    readable.reset();
    continued.reset();
    input.reset();
    if (begun != "") lines.push_back(std::exchange(begun, ""));
    return true;
  }
  for (const char each : std::string_view(buffer, static_cast<std::size_t>(count))) {
    if (each == '\n') {
      lines.push_back(std::exchange(begun, ""));
    } else if (begun && begun->append(1, each).size() > longestLine()) {
      begun.reset();
    }
  }
  return true;
}

}  // namespace kestrune
