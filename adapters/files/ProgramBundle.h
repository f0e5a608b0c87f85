#pragma once

#include <string>
#include <vector>

#include "ports/MainBundle.h"

namespace kestrune {

/// The running program on Linux: its own file and the folder that holds it stand for the bundle. Make it at
/// the start of the process: an upgrade of the program, or a folder that goes, must not change what it says.
class ProgramBundle final : public MainBundle {
 public:
  ProgramBundle();

  std::string bundlePath() const override { return folder; }
  std::optional<std::string> executablePath() const override { return executable; }
  std::optional<std::string> pathForResource(const std::string& name,
                                             const std::string& extension) const override;
  std::optional<std::string> environmentVariable(const std::string& name) const override;
  std::string currentDirectoryPath() const override { return workingDirectory; }

 private:
  std::optional<std::string> executable;
  std::string folder;
  std::string workingDirectory;
};

/// The user's folders, by the freedesktop rules. Each ends without a slash.
struct UserFolders {
  std::string home;
  std::string config;
  std::string state;
  std::string runtime;            ///< empty when the session has none
  std::vector<std::string> data;  ///< the user's own first

  static UserFolders fromEnvironment(const MainBundle& environment);
};

}  // namespace kestrune
