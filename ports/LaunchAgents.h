#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// Registers programs that start at login: one file for each, named after a label. On Linux, autostart
/// entries. Main thread.
class LaunchAgents {
 public:
  virtual ~LaunchAgents() = default;

  /// The file of the agent `label`.
  virtual std::string path(const std::string& label) const = 0;

  /// Whether a desktop on this machine starts agents at login.
  virtual bool areRead() const = 0;

  /// Whether the agent's file exists and is not switched off in the desktop's settings.
  virtual bool isRegistered(const std::string& label) const = 0;

  /// The contents of a file that starts `executablePath` at login with the backend in `repoPath`. Absent when
  /// a path contains a character that the format cannot hold.
  virtual std::optional<std::string> document(const std::string& label, const std::string& executablePath,
                                              const std::string& repoPath) const = 0;

  /// If the program that this application's agent starts no longer exists, rewrites the file to start the
  /// running program with the backend in `repoPath`. Ignores a file that is missing or not ours.
  virtual void repair(const std::string& label, const std::string& repoPath) = 0;
};

}  // namespace kestrune
