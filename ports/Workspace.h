#pragma once

#include <string>

#include "ports/Result.h"

namespace kestrune {

/// Opens files and programs. Main thread. Does not wait for the programs that it starts.
class Workspace {
 public:
  virtual ~Workspace() = default;

  /// Opens a file or folder in the desktop's default program. Does not report the result.
  virtual void open(const std::string& path) = 0;

  /// The path of the Codex App on this host, whether it is installed or not.
  virtual std::string codexAppPath() const = 0;

  /// Starts a second instance of this application from the bundle at `bundlePath`; it waits until this one
  /// has ended. Where this process calls exec at its end instead, the result cannot report a failure of exec:
  /// check first that the program can run.
  virtual Result<> openNewInstance(const std::string& bundlePath) = 0;
};

}  // namespace kestrune
