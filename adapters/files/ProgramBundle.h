#pragma once

#include <string>
#include <vector>

#include "ports/MainBundle.h"

namespace kestrune {

/// The running program. `bundlePath` returns the folder that contains its executable. Construct this object
/// at the start of the process: after an upgrade or a removal, /proc/self/exe no longer names the executable.
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

/// Returns the value of an environment variable; empty if the variable is not set. Removes the variable from
/// the environment of this process, so that no child inherits the variable.
std::string takeVariable(const char* name);

/// The user's home folder and the user's XDG base directories, without a slash at the end.
struct UserFolders {
  std::string home;
  std::string config;
  std::string state;
  std::string runtime;            ///< empty when the session has no runtime folder
  std::vector<std::string> data;  ///< the user's own folder first, then the shared folders

  static UserFolders fromEnvironment(const MainBundle& environment);
};

}  // namespace kestrune
