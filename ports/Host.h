#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ports/Platform.h"

namespace kestrune {

/// The user interface of the client: the tray, or text in a terminal.
enum class Face { tray, terminal };

/// The machine that the program runs on. Main thread.
class Host {
 public:
  virtual ~Host() = default;

  /// Tries to make this process the only client of this user, and returns whether it succeeded. If another
  /// client runs, returns false and makes that client show its menu, unless `StartOptions::background` is
  /// set. If this process was started to replace the running client, first waits until that client has ended.
  virtual bool becomeOnlyInstance() = 0;

  virtual Platform& platform() = 0;

  /// Makes the running client perform the action of a menu row, and waits for that client's answer. On
  /// failure returns the reason in one line; absent on success. A process that calls `perform` may call no
  /// other function of the host except `leave`.
  virtual std::optional<std::string> perform(const std::string& action) = 0;

  /// Describes the machine and the session for a bug report, in lines of text without secrets. Starts no
  /// D-Bus service. A process that calls this may call no other function of the host except `platform` and
  /// `leave`.
  virtual std::string describe() = 0;

  /// From now on, ends the main loop when the reader of standard output closes the pipe.
  virtual void endWithOutput() = 0;

  /// Writes `text` to standard output and never blocks. If `text` cannot be written, drops it, prints the
  /// reason on standard error and returns false; prints nothing if the reader has closed the pipe.
  virtual bool write(const std::string& text) = 0;

  /// Ends the process with `status`, or calls exec if a restart in this process was requested. Runs no
  /// destructors, because a worker thread that is still busy may use any object.
  [[noreturn]] virtual void leave(int status) = 0;
};

/// The options with which the program was started.
struct StartOptions {
  Face face = Face::tray;
  bool background = false;               ///< do not make a running client show its menu
  std::vector<std::string> arguments{};  ///< all command-line arguments, which a restart passes on
};

/// Returns the host, never null. Called once, before the first thread starts.
std::unique_ptr<Host> makeHost(const StartOptions& options);

}  // namespace kestrune
