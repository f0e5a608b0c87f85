#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// The program's paths and environment variables. Any thread. No result changes while the process runs.
class MainBundle {
 public:
  virtual ~MainBundle() = default;

  /// Returns the application's folder, without a trailing slash. On Linux, the program's file is in it.
  virtual std::string bundlePath() const = 0;

  /// Returns the path that the program's file had when the process started; absent if unknown.
  virtual std::optional<std::string> executablePath() const = 0;

  /// Returns the path of the application's resource file "name.extension"; absent if there is none.
  virtual std::optional<std::string> pathForResource(const std::string& name,
                                                     const std::string& extension) const = 0;

  virtual std::optional<std::string> environmentVariable(const std::string& name) const = 0;

  /// Returns the working directory at the start of the process.
  virtual std::string currentDirectoryPath() const = 0;
};

}  // namespace kestrune
