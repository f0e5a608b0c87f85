#pragma once

#include <string>

#include "ports/FileManager.h"
#include "ports/LaunchAgents.h"
#include "ports/ServiceControl.h"

namespace kestrune {

/// Launch agents: property lists of the programs that launchd starts at login.
class LaunchdAgents final : public LaunchAgents {
 public:
  /// `givenFiles` must outlive this object.
  explicit LaunchdAgents(const FileManager& givenFiles) : files(givenFiles) {}

  std::string path(const std::string& label) const override;
  bool areRead() const override { return true; }
  bool isRegistered(const std::string& label) const override;
  std::optional<std::string> document(const std::string& label, const std::string& executablePath,
                                      const std::string& repoPath) const override;
  /// Does nothing. On macOS, an upgrade does not change the path of the program.
  void repair(const std::string& label, const std::string& repoPath) override;

 private:
  const FileManager& files;
};

/// Builds shell lines that unload the user's launchd jobs and end processes.
class LaunchdServiceControl final : public ServiceControl {
 public:
  /// `userID`: the numeric ID of the user who owns the jobs.
  explicit LaunchdServiceControl(unsigned userID) : domain("gui/" + std::to_string(userID)) {}

  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;

 private:
  const std::string domain;
};

}  // namespace kestrune
