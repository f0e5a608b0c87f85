#pragma once

#include <string>

namespace kestrune {

/// Builds shell lines that end services and processes on this host. Each line is a complete command, contains
/// no newline, and ends in "|| true", so that it always succeeds. Any thread.
class ServiceControl {
 public:
  virtual ~ServiceControl() = default;

  /// Returns a shell line that unloads the user's service `label` from the service manager, if it is loaded.
  virtual std::string unloadLine(const std::string& label) const = 0;

  /// Returns a shell line that sends SIGTERM to every process whose command line contains `pattern`. On
  /// Linux, the line spares the shell that runs it, all processes of `KestruneMenuClient` and
  /// `KestruneMenuDialogs`, and the ancestors of all these processes.
  virtual std::string endMatchingLine(const std::string& pattern) const = 0;

  /// Returns a shell line that sends SIGKILL to the processes that listen on the TCP port `port`.
  virtual std::string killListenersLine(int port) const = 0;
};

}  // namespace kestrune
