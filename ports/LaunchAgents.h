#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// Programs (agents) that the desktop starts at login. Each agent has one file, named after its label; on
/// Linux, an autostart entry. To register an agent, the caller writes `document` to `path`. Main thread.
class LaunchAgents {
 public:
  virtual ~LaunchAgents() = default;

  virtual std::string path(const std::string& label) const = 0;

  /// Returns whether this machine has a desktop that starts agents at login.
  virtual bool areRead() const = 0;

  /// Returns whether the agent's file exists and the agent is not switched off in the desktop's settings.
  virtual bool isRegistered(const std::string& label) const = 0;

  /// Returns the contents of the file with which the program `executablePath` starts at login and uses the
  /// backend in the folder `repoPath`. Absent if the format cannot hold a character of a path.
  virtual std::optional<std::string> document(const std::string& label, const std::string& executablePath,
                                              const std::string& repoPath) const = 0;

  /// Updates the agent's file if the program was moved. If the program's path in the file no longer exists,
  /// replaces it with the running program's path. If the backend's path in the file does not exist either,
  /// replaces that path with `repoPath`. Does nothing to the file of another application.
  virtual void repair(const std::string& label, const std::string& repoPath) = 0;
};

}  // namespace kestrune
