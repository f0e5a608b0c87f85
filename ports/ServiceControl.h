#pragma once

#include <string>

namespace kestrune {

/// Words the shell lines that end services and processes on this host. Behind a port because service managers
/// and process tools differ. Each line is complete, ends in "|| true" and has no newline. Any thread.
class ServiceControl {
 public:
  virtual ~ServiceControl() = default;

  /// Unloads the user's service `label` from the service manager, if it is loaded.
  virtual std::string unloadLine(const std::string& label) const = 0;

  /// Asks every process to end (SIGTERM) whose command line contains `pattern`. On Linux it spares the shell
  /// that runs the line, this client and its windows.
  virtual std::string endMatchingLine(const std::string& pattern) const = 0;

  /// Kills (SIGKILL) whoever listens on the TCP port.
  virtual std::string killListenersLine(int port) const = 0;
};

}  // namespace kestrune
