#pragma once

#include <string>

#include "ports/Result.h"

namespace kestrune {

/// Opens files and programs. Does not wait for the programs that it starts. Main thread.
class Workspace {
 public:
  virtual ~Workspace() = default;

  /// Opens a file or folder in the desktop's default program. Does not report the result.
  virtual void open(const std::string& path) = 0;

  /// Returns the path of the Codex App on this host, whether the app is installed or not.
  virtual std::string codexAppPath() const = 0;

  /// Starts a second instance of this application from the bundle at `bundlePath`; the new instance waits
  /// until this process has ended. In a terminal or a service, starts nothing: this process calls exec at its
  /// end. The result cannot report a failure of that exec, so check first that the program can run.
  virtual Result<> openNewInstance(const std::string& bundlePath) = 0;
};

}  // namespace kestrune
