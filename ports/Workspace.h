#pragma once

#include <string>

#include "ports/Result.h"

namespace kestrune {

/// What the desktop opens for the user. Behind a port so that a test opens nothing. Main thread; nothing here
/// waits for what it starts.
class Workspace {
 public:
  virtual ~Workspace() = default;

  /// Opens a file or a folder in the program that the desktop has for it. What comes of it is not told.
  virtual void open(const std::string& path) = 0;

  /// Where this host keeps the Codex App, whether it is there or not.
  virtual std::string codexAppPath() const = 0;

  /// Starts this application once more, from the bundle at `bundlePath`, beside the instance that runs; the
  /// new one waits until this one has gone. Where the new one takes over this process at its end, a failure
  /// comes too late to be returned: find out first whether the program can run.
  virtual Result<> openNewInstance(const std::string& bundlePath) = 0;
};

}  // namespace kestrune
