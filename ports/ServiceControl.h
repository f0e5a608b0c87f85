#pragma once

#include <string>

namespace kestrune {

/// Builds shell lines that end services and processes on this host. Each line is a complete command without
/// a newline. It always succeeds, because it ends in "|| true". Any thread.
class ServiceControl {
 public:
  virtual ~ServiceControl() = default;

  /// Returns a shell line that unloads the user's service `label` from the service manager, if it is loaded.
  virtual std::string unloadLine(const std::string& label) const = 0;

  /// Returns a shell line that sends SIGTERM to every process whose command line matches `pattern`, a regular
  /// expression. On Linux, the line sends no signal to processes of `KestruneMenuClient` and
  /// `KestruneMenuDialogs`, nor to their ancestors. `pattern` must begin with a letter or digit: for "name",
  /// the line on Linux contains the pattern "[n]ame", which does not match the shell that runs the line.
  virtual std::string endMatchingLine(const std::string& pattern) const = 0;

  /// Returns a shell line that sends SIGKILL to the processes that listen on the TCP port `port`.
  virtual std::string killListenersLine(int port) const = 0;
};

}  // namespace kestrune
