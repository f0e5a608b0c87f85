#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ports/Platform.h"

namespace kestrune {

/// How the client shows itself: in the tray, or as text in a terminal.
enum class Face { tray, terminal };

/// The machine that the program runs on. Main thread.
class Host {
 public:
  virtual ~Host() = default;

  /// Whether this process becomes the one client of this user. If another client runs, returns false and,
  /// unless in the background, makes that client show its menu. If this process was started to replace that
  /// client, waits for its end first.
  virtual bool becomeOnlyInstance() = 0;

  virtual Platform& platform() = 0;

  /// Makes the running client perform the action of a menu row, and waits until it has. Returns why it did
  /// not, in one line; absent on success. Apart from this, only `leave` may be called.
  virtual std::optional<std::string> perform(const std::string& action) = 0;

  /// Describes the machine and the session for a bug report: lines of text, without secrets. Starts no
  /// service. Apart from this, only `platform` and `leave` may be called.
  virtual std::string describe() = 0;

  /// Terminates the application when the reader of standard output has closed it.
  virtual void endWithOutput() = 0;

  /// Writes to standard output and never blocks. False when the text was dropped. Prints the reason on
  /// standard error, unless the reader has closed the pipe.
  virtual bool write(const std::string& text) = 0;

  /// Ends the process with `status`, or calls exec if a restart in this process was requested. Runs no
  /// destructors: a worker that is still busy may use any object.
  [[noreturn]] virtual void leave(int status) = 0;
};

/// The options of a start.
struct StartOptions {
  Face face = Face::tray;
  bool background = false;               ///< a client that already runs does not show its menu
  std::vector<std::string> arguments{};  ///< as given, for a restart
};

/// Called once, before the first thread starts. Never null.
std::unique_ptr<Host> makeHost(const StartOptions& options);

}  // namespace kestrune
