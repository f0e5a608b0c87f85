#pragma once

#include <QSocketNotifier>
#include <functional>
#include <string>

namespace kestrune::dialogs {

/// The lines of a stream as they come in. Never blocks.
class LineReader {
 public:
  /// `descriptor` stays the caller's. `onLine` is called with each line, without its end; `onEnd` once, when
  /// the stream ends, which drops a line that was not finished, or when it cannot be read.
  LineReader(int descriptor, std::function<void(const std::string&)> onLine, std::function<void()> onEnd);

  /// Nothing is called any more.
  void stop() { notifier.setEnabled(false); }

 private:
  void read();

  QSocketNotifier notifier;
  std::function<void(const std::string&)> onLine;
  std::function<void()> onEnd;
  std::string begun;
};

/// Writes a line at once, and its end. False when nobody takes it any more.
bool writeLine(int descriptor, std::string line);

}  // namespace kestrune::dialogs
