#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "adapters/loop/DescriptorWriter.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/system/System.h"

namespace kestrune {

/// Writes text to standard output (a terminal, a pipe, a socket or a file) without blocking. Main thread.
class StandardOutput final : public DescriptorWriter {
 public:
  /// Writes through a new descriptor for the same file, and leaves the flags of `descriptor` unchanged.
  StandardOutput(EventLoop& loop, int descriptor);

  bool isTerminal() const { return static_cast<bool>(screen); }

  /// Returns the present size of the terminal; zeros when it is unknown.
  winsize size() const {
    winsize size{};
    if (screen) ioctl(screen.get(), TIOCGWINSZ, &size);
    return size;
  }

 private:
  const FileDescriptor screen;  ///< used to ask for the size; empty if the output is no terminal
};

/// Reads lines from standard input, through a new descriptor. Makes descriptor 0 refer to "/dev/null", so
/// that child processes cannot take the lines away. Reads nothing before `start`. Main thread.
class StandardInput {
 public:
  struct Reader {
    /// Called once per line, with the line without its newline, or with std::nullopt if the line is too long.
    /// Jobs that one call puts on the main queue run before the next call.
    std::function<void(const std::optional<std::string>&)> onLine;
    std::function<void()> onEnd;          ///< called once, after the last line
    std::function<void()> onContinued{};  ///< called when this process is back in the foreground; may be null
  };

  /// Descriptor 0 must be open; the constructor of `EventLoop` opens it if it is closed.
  explicit StandardInput(EventLoop& loop);

  void start(Reader reader);

  /// Makes descriptor 0 refer to standard input again, for the program that execve starts.
  void restore() const { dup2(input.get(), STDIN_FILENO); }

  bool isTerminal() const { return terminal; }

  /// Switches off the terminal's echo of typed text. With `hide` false, switches it on again if this object
  /// has switched it off. In the background, changes nothing. Back in the foreground, the echo is switched
  /// off within 0.2 s, but on only at the next SIGCONT or call.
  void hideTyping(bool hide);

  /// Returns the maximum length of a line in bytes. For a longer line, `onLine` is called with std::nullopt.
  std::size_t longestLine() const {
    // In canonical mode, the kernel cuts a typed line that does not fit into its buffer. So a line that fills
    // the buffer (4095 bytes and the line end) may have been cut, and counts as too long.
    return terminal ? lineDisciplineCapacity - 2 : lineLimit;
  }

  /// Discards the unfinished line that the user is typing, but keeps finished lines. Does nothing on a pipe
  /// or a file, or while this process is in the background (the user then types for another program).
  void discardUnfinishedLine();
  /// Like `discardUnfinishedLine`, but also discards finished lines. On a pipe or a file, discards up to 1
  /// MiB of what can be read now.
  void discardTyped();

 private:
  void resume();
  void goOn();
  bool readSome();
  bool isInBackground() const {
    const pid_t owner = tcgetpgrp(input.get());
    return owner >= 0 && owner != getpgrp();
  }

  static constexpr std::size_t lineLimit = 65536;              ///< bytes; maximum for a pipe or a file
  static constexpr std::size_t lineDisciplineCapacity = 4096;  ///< bytes; N_TTY_BUF_SIZE of the kernel
  EventLoop& loop;
  FileDescriptor input;
  const bool terminal = isatty(input.get()) == 1;
  const bool mayBlock = (fcntl(input.get(), F_GETFL) & O_NONBLOCK) == 0;
  bool turnIsDue = false;  ///< whether the main queue holds a job that reads lines or gives them to `onLine`
  bool hidden = false;     ///< whether typed text must not be echoed
  bool silenced = false;   ///< whether this object has switched the echo off
  std::deque<std::optional<std::string>> lines;  ///< to be given to `onLine`; std::nullopt: too long
  Reader reader;
  std::optional<std::string> begun{""};  ///< the unfinished line; absent if it is already too long
  EventSource readable, continued, foregroundCheck;
};

}  // namespace kestrune
