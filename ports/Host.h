#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ports/Platform.h"

namespace kestrune {

/// The operating system as the program uses it: the `Platform`, the check for another running client,
/// standard output, and the exit of the process. Call its functions on the main thread.
class Host {
 public:
  virtual ~Host() = default;

  /// Returns whether this process is now the only client of this user. If this process was started to replace
  /// a running client, first waits until that client has ended. Otherwise, if another client runs, returns
  /// false, and makes that client show its menu (unless `StartOptions::background` is set).
  virtual bool becomeOnlyInstance() = 0;

  virtual Platform& platform() = 0;

  /// Makes the running client perform the action of a menu row, and waits for that client's answer. The
  /// reason of a failure is one line. Call this only in a process that is not the client, and call no other
  /// function of the host in that process except `leave`.
  virtual Result<> perform(const std::string& action) = 0;

  /// Describes the machine and the session for a bug report, in lines of text without secrets. Does not
  /// activate D-Bus services. The conditions of `perform` apply, but `platform` may be called too.
  virtual std::string describe() = 0;

  /// Makes the main loop end when no process can read standard output any more, for example because standard
  /// output is a pipe and the program that reads the pipe has exited.
  virtual void endWithOutput() = 0;

  /// Writes `text` to standard output and never blocks. If `text` cannot be written, drops it and returns
  /// false. Also prints the reason on standard error, unless the reader has closed the pipe.
  virtual bool write(const std::string& text) = 0;

  /// Ends the process with `status`, or calls exec if a restart in this process was requested. Runs no
  /// destructors, because a worker thread that is still busy may use any object.
  [[noreturn]] virtual void leave(int status) = 0;
};

struct StartOptions {
  bool terminal = false;                 ///< show the menu as text in a terminal, not in the tray
  bool background = false;               ///< do not make a running client show its menu
  std::vector<std::string> arguments{};  ///< all command-line arguments; a restart passes them to the program
};

/// Returns the host, never null. Call this once, before the first thread starts.
std::unique_ptr<Host> makeHost(const StartOptions& options);

}  // namespace kestrune
