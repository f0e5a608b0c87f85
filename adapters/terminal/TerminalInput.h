#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Reads lines from standard input by a descriptor of its own, and leaves "/dev/null" there for children.
/// Reads nothing before `start`. Main thread.
class TerminalInput {
 public:
  explicit TerminalInput(EventLoop& loop);

  /// Makes what is read here standard input again, for a program that takes over this process.
  void giveBack() const;

  bool isTerminal() const { return terminal; }

  /// Keeps a terminal from showing what is typed from now on, or lets it show that again if this has kept it
  /// from it. In the background, where the terminal is another's, it takes effect with the next SIGCONT.
  void hideTyping(bool hide);

  /// The length in bytes up to which lines are told whole.
  std::size_t longestLine() const;

  /// Calls `onLine` with each line, without its end, or with nothing for one that is too long, and `onEnd`
  /// once, when there are no more. Between two lines everything is done that the first one put into the
  /// queue.
  void start(std::function<void(const std::optional<std::string>& line)> onLine, std::function<void()> onEnd);

  /// Discards the line that the user of a terminal has begun to type. Lines that are finished stay. Does
  /// nothing on a pipe or a file, and in the background, where the line is typed for another job.
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
  bool turnIsDue = false;                        ///< a job that reads or delivers is on the queue
  bool hidden = false;                           ///< typed text must not be echoed
  bool silenced = false;                         ///< this has switched the echo off
  std::deque<std::optional<std::string>> lines;  ///< already read, not yet delivered
  std::function<void(const std::optional<std::string>&)> onLine;
  std::function<void()> onEnd;
  std::optional<std::string> begun{""};  ///< a line whose end has not come; absent when it is too long
  EventSource readable;
  EventSource continued;
};

}  // namespace kestrune
