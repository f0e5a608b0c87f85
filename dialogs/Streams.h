#pragma once

#include <QSocketNotifier>
#include <functional>
#include <string>

namespace kestrune::dialogs {

/// Reads lines from a descriptor as they arrive. Never blocks.
class LineReader {
 public:
  /// The caller owns `descriptor`. `onLine` gets each line without its line end. `onEnd` runs once, at end of
  /// file or on a read error; an incomplete last line is dropped.
  LineReader(int descriptor, std::function<void(const std::string&)> onLine, std::function<void()> onEnd);

  /// No callback runs after this.
  void stop() { notifier.setEnabled(false); }

 private:
  void read();

  QSocketNotifier notifier;
  std::function<void(const std::string&)> onLine;
  std::function<void()> onEnd;
  std::string begun;
};

/// Writes a line and a line end; blocks while the pipe is full. False on an error, such as EPIPE.
bool writeLine(int descriptor, std::string line);

}  // namespace kestrune::dialogs
