#pragma once

#include <optional>
#include <string>

#include "ports/LaunchAgents.h"
#include "ports/MainBundle.h"

namespace kestrune {

/// Autostart entries: desktop entries that the session starts at login. An autostart entry that the desktop
/// has switched off, by Hidden or X-GNOME-Autostart-enabled, counts as missing.
class AutostartEntries final : public LaunchAgents {
 public:
  /// `folder` is the user's autostart folder; `bundle` is the running program.
  AutostartEntries(std::string folder, const MainBundle& bundle);

  std::string path(const std::string& label) const override;
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
};

}  // namespace kestrune
