#include "adapters/terminal/TerminalInput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace kestrune {

namespace {

constexpr std::size_t lineLimit = 65536;              // bytes
constexpr std::size_t pieceSize = 4096;               // bytes that are read at a time
constexpr std::size_t discardLimit = 1 << 20;         // bytes
constexpr std::size_t lineDisciplineCapacity = 4096;  // bytes of a terminal's input, line ends included

FileDescriptor takeStandardInput() {
  struct stat state {};
  if (fstat(STDIN_FILENO, &state) != 0) return {};
  FileDescriptor own;
  // Where that is possible, an opening of its own, so that not to block concerns nobody else.
  if (S_ISFIFO(state.st_mode) || S_ISCHR(state.st_mode)) {
    own.reset(open("/proc/self/fd/0", O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  }
  if (!own) own.reset(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  return own;
}

void leaveNothingForChildren() {
  FileDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!nothing) return;
  if (nothing.get() != STDIN_FILENO) {
    dup2(nothing.get(), STDIN_FILENO);
  } else {
    fcntl(nothing.release(), F_SETFD, 0);
  }
}

}  // namespace

TerminalInput::TerminalInput(EventLoop& givenLoop)
    : loop(givenLoop),
      input(takeStandardInput()),
      terminal(input && isatty(input.get()) == 1),
      mayBlock(input && (fcntl(input.get(), F_GETFL) & O_NONBLOCK) == 0) {
  leaveNothingForChildren();
  // In the background, reading and writing fail instead of stopping the whole program.
  std::signal(SIGTTIN, SIG_IGN);
  std::signal(SIGTTOU, SIG_IGN);
}

void TerminalInput::giveBack() const {
  if (input) dup2(input.get(), STDIN_FILENO);
}

void TerminalInput::hideTyping(bool hide) {
  hidden = hide;
  applyHiding();
}

void TerminalInput::applyHiding() {
  if (!terminal || !input || hidden == silenced) return;
  if (isInBackground()) return;
  termios settings{};
  if (tcgetattr(input.get(), &settings) != 0) return;
  const bool shown = (settings.c_lflag & ECHO) != 0;
  if (shown != hidden) {
    silenced = false;  // it is as it should be without this
    return;
  }
  settings.c_lflag ^= ECHO;
  if (tcsetattr(input.get(), TCSANOW, &settings) == 0) silenced = hidden;
}

bool TerminalInput::isInBackground() const {
  const pid_t owner = tcgetpgrp(input.get());
  return owner >= 0 && owner != getpgrp();
}

std::size_t TerminalInput::longestLine() const {
  // The line discipline drops what it has no room for: a line that fills it may have been cut.
  return terminal ? lineDisciplineCapacity - 2 : lineLimit;
}

void TerminalInput::discardUnfinishedLine() {
  if (!terminal || !readable || isInBackground()) return;
  // Each read gives one finished line. The last one gives none, and has the kernel pass on first what has not
  // reached the line discipline yet.
  for (std::size_t line = 0; line < lineDisciplineCapacity && readable && readSome(); ++line) {
  }
  if (!lines.empty()) goOn();
  if (!input) return;
  tcflush(input.get(), TCIFLUSH);
  begun = "";
}

void TerminalInput::discardTyped() {
  discardUnfinishedLine();
  if (!terminal) {
    // A writer may be quick, or never stop.
    for (std::size_t size = 0; size < discardLimit && input && readSome(); size += pieceSize) {
    }
    // The rest of a line is no line.
    if (begun != "") begun.reset();
  }
  lines.clear();
}

void TerminalInput::start(std::function<void(const std::optional<std::string>&)> givenOnLine,
                          std::function<void()> givenOnEnd) {
  onLine = std::move(givenOnLine);
  onEnd = std::move(givenOnEnd);
  if (terminal) {
    continued = loop.onSignal(SIGCONT, [this] {
      // Another program may have changed the terminal's settings meanwhile.
      silenced = false;
      applyHiding();
      goOn();
    });
  }
  wait();
}

void TerminalInput::wait() {
  // Edge-triggered: a job in the background cannot read pending input, and a level-triggered descriptor would
  // make the loop spin. SIGCONT tells when the job is in the foreground, but not every shell sends it.
  if (input) readable = loop.onDescriptor(input.get(), EPOLLIN | EPOLLET, [this] { goOn(); });
  // Regular files and "/dev/null" cannot be waited for, and never block.
  if (!readable) goOn();
}

/// Takes one line or one piece for each turn of the loop, so that endless input does not starve its other
/// sources.
void TerminalInput::goOn() {
  if (std::exchange(turnIsDue, true)) return;
  loop.mainQueue().async([this] {
    turnIsDue = false;
    if (takeTurn()) goOn();
  });
}

/// False when there is nothing more to do now.
bool TerminalInput::takeTurn() {
  if (!lines.empty()) {
    const std::optional<std::string> line = std::move(lines.front());
    lines.pop_front();
    onLine(line);
    return true;
  }
  if (input) return readSome();
  if (onEnd) std::exchange(onEnd, nullptr)();
  return false;
}

/// False when there is nothing more to read now.
bool TerminalInput::readSome() {
  if (mayBlock) {
    pollfd data{input.get(), POLLIN, 0};
    if (poll(&data, 1, 0) == 0) return false;
  }
  char buffer[pieceSize];
  const ssize_t count = read(input.get(), buffer, sizeof buffer);
  if (count < 0 && errno == EINTR) return true;
  if (count < 0 && errno == EAGAIN) return false;
  // Another job has the terminal.
  if (count < 0 && errno == EIO && terminal && tcgetpgrp(input.get()) != getpgrp()) return false;
  if (count <= 0) {
    end();
    return true;
  }
  std::string_view bytes(buffer, static_cast<std::size_t>(count));
  for (std::size_t end; (end = bytes.find('\n')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
    append(bytes.substr(0, end));
    lines.push_back(std::exchange(begun, ""));
  }
  append(bytes);
  return true;
}

void TerminalInput::append(std::string_view piece) {
  if (begun && begun->size() + piece.size() <= longestLine()) {
    *begun += piece;
  } else {
    begun.reset();
  }
}

void TerminalInput::end() {
  hideTyping(false);
  readable.reset();
  continued.reset();
  input.reset();
  if (begun != "") lines.push_back(std::exchange(begun, ""));
}

}  // namespace kestrune
