#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ports/LaunchAgents.h"
#include "ports/MainBundle.h"

namespace kestrune {

/// The desktop entries that a session starts at login. An entry that a desktop has switched off, as each of
/// them does in its own way, counts as none.
class AutostartEntries final : public LaunchAgents {
 public:
  /// `folder` is the user's autostart folder; `bundle` is the running program; `dataFolders` are those in
  /// which desktops are installed.
  AutostartEntries(std::string folder, const MainBundle& bundle, std::vector<std::string> dataFolders = {});

  std::string path(const std::string& label) const override;
  /// Whether this is the session of a desktop, or one is installed.
  bool areRead() const override;
  bool isRegistered(const std::string& label) const override;
  std::optional<std::string> document(const std::string& label, const std::string& executablePath,
                                      const std::string& repoPath) const override;

  /// Whether the entry is switched on, and whatever else stands in it, stays as it is. A program in a build
  /// folder is no replacement: it goes as easily.
  void repair(const std::string& label, const std::string& repoPath) override;

 private:
  std::string absolute(const std::string& repoPath) const;

  const std::string folder;
  const MainBundle& bundle;
  const std::vector<std::string> dataFolders;
};

}  // namespace kestrune
