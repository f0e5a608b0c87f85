#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// How this host registers the programs that start when the user logs in: a file for each, named after a
/// label. Behind a port because every host has a place and a format of its own. Main thread.
class LaunchAgents {
 public:
  virtual ~LaunchAgents() = default;

  /// The file of the agent `label`.
  virtual std::string path(const std::string& label) const = 0;

  /// Whether something on this machine starts agents at login.
  virtual bool areRead() const = 0;

  /// Whether the agent's file is there, and the user's desktop has not switched it off.
  virtual bool isRegistered(const std::string& label) const = 0;

  /// What the file holds that starts `executablePath` at login, so that it finds the backend in `repoPath`
  /// again. Absent when one of the paths holds a character that cannot be written there.
  virtual std::optional<std::string> document(const std::string& label, const std::string& executablePath,
                                              const std::string& repoPath) const = 0;

  /// Leads an agent of this application to the running program and to the backend in `repoPath` if the
  /// program that it starts is gone. Nothing happens to one that is not there, or is not ours.
  virtual void repair(const std::string& label, const std::string& repoPath) = 0;
};

}  // namespace kestrune
