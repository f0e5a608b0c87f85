#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ports/FileManager.h"
#include "ports/LaunchAgents.h"
#include "ports/MainBundle.h"

namespace kestrune {

/// Autostart entries: desktop entries (.desktop files) that the session starts at login. An entry that the
/// desktop has switched off, by Hidden or X-GNOME-Autostart-enabled, counts as missing.
class AutostartEntries final : public LaunchAgents {
 public:
  /// `folder`: the user's autostart folder. `bundle`: the running program. `files` and `bundle` must
  /// outlive this object.
  /// `dataFolders`: the XDG data folders, in which installed desktops are looked up.
  AutostartEntries(FileManager& files, std::string folder, const MainBundle& bundle,
                   std::vector<std::string> dataFolders = {});

  std::string path(const std::string& label) const override;
  /// Returns whether a desktop reads the entries: true if the process runs in a desktop session, or if a
  /// desktop is installed.
  bool areRead() const override;
  bool isRegistered(const std::string& label) const override;
  std::optional<std::string> document(const std::string& label, const std::string& executablePath,
                                      const std::string& repoPath) const override;

  /// Also replaces the path of the repository in the entry, but only if that repository is missing. Does
  /// nothing when the running program is in a build folder, because a build folder may soon vanish too.
  void repair(const std::string& label, const std::string& repoPath) override;

 private:
  std::string absolute(const std::string& repoPath) const;

  FileManager& files;
  const std::string folder;
  const MainBundle& bundle;
  const std::vector<std::string> dataFolders;
};

}  // namespace kestrune
