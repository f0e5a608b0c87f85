#pragma once

#include <string>
#include <vector>

#include "adapters/loop/EventLoop.h"
#include "ports/Desktop.h"
#include "ports/MainBundle.h"

namespace kestrune {

/// The environment variable that tells a new client the PID of the client that it replaces.
inline constexpr auto relaunchVariable = "KESTRUNE_MENU_CLIENT_RELAUNCH";

/// Opens files with the desktop's default programs, and restarts the client. Main thread.
class DesktopWorkspace final : public Workspace {
 public:
  /// `arguments` are the arguments of this process. With `inPlace`, this process executes the new
  /// client (exec) instead of exiting, because a terminal or a service manager waits for this process.
  /// Otherwise the new client starts as a second process.
  DesktopWorkspace(EventLoop& loop, const MainBundle& bundle, std::vector<std::string> arguments,
                   bool inPlace);

  void open(const std::string& path) override;
  std::string codexAppPath() const override { return "/Applications/Codex.app"; }
  Result<> openNewInstance(const std::string& bundlePath) override;

  /// Returns whether `openNewInstance` was called and this process must end by exec.
  bool replacesThisProcess() const { return replacing; }
  /// Replaces this process by exec. If exec fails, prints the reason on standard error and returns.
  void replaceThisProcess() const;

 private:
  EventLoop& loop;
  const std::string executable;
  const std::string workingDirectory;
  const std::vector<std::string> arguments;
  const bool inPlace;
  bool replacing = false;
};

}  // namespace kestrune
