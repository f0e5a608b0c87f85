#pragma once

#include <sys/ioctl.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "adapters/loop/DescriptorWriter.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Writes text to standard output (a terminal, a pipe, a socket or a file) without blocking. Main thread.
class StandardOutput {
 public:
  /// Writes through a descriptor of its own to what `descriptor` is open on.
  StandardOutput(EventLoop& loop, int descriptor);

  /// False when the text was dropped: too much is waiting, or the reader has closed its end.
  bool write(std::string_view text) { return writer.write(text); }

  bool isTerminal() const { return terminal; }

  /// The present size of the terminal; zeros when unknown.
  winsize size() const;

 private:
  const bool terminal;
  const FileDescriptor screen;  ///< to ask for the size; only for a terminal
  DescriptorWriter writer;
};

/// Reads lines from standard input through a descriptor of its own, and puts "/dev/null" in its place for
/// children. Reads nothing before `start`. Main thread.
class StandardInput {
 public:
  /// What the reader is told, on the main thread.
  struct Reader {
    /// A line without its end; absent when it is too long. Jobs that a line puts on the main queue run before
    /// the next line is told.
    std::function<void(const std::optional<std::string>&)> onLine;
    std::function<void()> onEnd;  ///< once, after the last line
    std::function<void()> onContinued =
        nullptr;  ///< SIGCONT has put this job into the foreground; may be null
  };

  explicit StandardInput(EventLoop& loop);

  void start(Reader reader);

  /// Makes what is read here standard input again, for a program that replaces this process.
  void giveBack() const;

  bool isTerminal() const { return terminal; }

  /// Switches the terminal's echo off, or on again if this has switched it off. In the background, takes
  /// effect with the next SIGCONT.
  void hideTyping(bool hide);

  /// The length in bytes of the longest line that is not too long.
  std::size_t longestLine() const;

  /// Discards the line that the user of a terminal has begun to type, but no finished lines. Does nothing on
  /// a pipe or a file, and in the background, where the line is typed for another job.
  void discardUnfinishedLine();
  /// Discards finished lines as well, and on a pipe or a file up to 1 MiB that can be read now.
  void discardTyped();

 private:
  void wait();
  void goOn();
  bool takeTurn();
  bool readSome();
  void append(std::string_view piece);
  void end();
  void applyHiding();
  bool isInBackground() const;

  EventLoop& loop;
  FileDescriptor input;
  const bool terminal;
  const bool mayBlock;
  bool turnIsDue = false;                        ///< a job on the main queue reads or tells lines
  bool hidden = false;                           ///< typed text must not be echoed
  bool silenced = false;                         ///< this has switched the echo off
  std::deque<std::optional<std::string>> lines;  ///< read, but not told yet
  Reader reader;
  std::optional<std::string> begun{""};  ///< the beginning of a line; absent when it is too long
  EventSource readable;
  EventSource continued;
};

}  // namespace kestrune
