#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ports/LaunchAgents.h"
#include "ports/MainBundle.h"

namespace kestrune {

/// Autostart entries: desktop entries that the session starts at login. An autostart entry that the desktop
/// has switched off, by Hidden or X-GNOME-Autostart-enabled, counts as missing.
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

  /// Changes the paths in the entry only. Does nothing when the running program is in a build folder, which
  /// may soon vanish too.
  void repair(const std::string& label, const std::string& repoPath) override;

 private:
  std::string absolute(const std::string& repoPath) const;

  const std::string folder;
  const MainBundle& bundle;
  const std::vector<std::string> dataFolders;
};

}  // namespace kestrune
