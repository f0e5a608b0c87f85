#pragma once

#include <string>

namespace kestrune {

/// Builds the shell commands that end services and processes on this host. Each is one complete line, ends in
/// "|| true" and has no newline. Any thread.
class ServiceControl {
 public:
  virtual ~ServiceControl() = default;

  /// A line that unloads the user's service `label` from the service manager, if it is loaded.
  virtual std::string unloadLine(const std::string& label) const = 0;

  /// A line that sends SIGTERM to every process whose command line contains `pattern`. On Linux it spares the
  /// shell that runs the line, all processes of `KestruneMenuClient` and `KestruneMenuDialogs`, and their
  /// ancestors.
  virtual std::string endMatchingLine(const std::string& pattern) const = 0;

  /// A line that sends SIGKILL to the processes that listen on the TCP port.
  virtual std::string killListenersLine(int port) const = 0;
};

}  // namespace kestrune
