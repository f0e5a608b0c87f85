#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ports/FileManager.h"
#include "ports/LaunchAgents.h"
#include "ports/MainBundle.h"

namespace kestrune {

/// Autostart entries: desktop entries (.desktop files) that the session starts at login. An entry that the
/// desktop has switched off, by Hidden or X-GNOME-Autostart-enabled, counts as missing.
class AutostartEntries final : public LaunchAgents {
 public:
  /// `givenFolder`: the user's autostart folder. `givenDataFolders`: the XDG data folders, in which installed
  /// desktops are looked up. `givenFiles` and `givenBundle` must outlive this object.
  AutostartEntries(FileManager& givenFiles, std::string givenFolder, const MainBundle& givenBundle,
                   std::vector<std::string> givenDataFolders = {})
      : files(givenFiles),
        folder(std::move(givenFolder)),
        bundle(givenBundle),
        dataFolders(std::move(givenDataFolders)) {}

  std::string path(const std::string& label) const override { return folder + "/" + label + ".desktop"; }
  /// Returns true if this process runs in a desktop session, or if a desktop is installed.
  bool areRead() const override;
  bool isRegistered(const std::string& label) const override;
  std::optional<std::string> document(const std::string& label, const std::string& executablePath,
                                      const std::string& repoPath) const override;

  /// Does nothing if the running program is in a build folder, whose removal would break the entry again.
  void repair(const std::string& label, const std::string& repoPath) override;

 private:
  FileManager& files;
  const std::string folder;
  const MainBundle& bundle;
  const std::vector<std::string> dataFolders;
};

}  // namespace kestrune
