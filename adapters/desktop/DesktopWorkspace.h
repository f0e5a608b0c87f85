#pragma once

#include <string>
#include <vector>

#include "adapters/loop/EventLoop.h"
#include "ports/MainBundle.h"
#include "ports/Workspace.h"

namespace kestrune {

/// The environment variable with the PID of the client that a new one replaces.
inline constexpr auto relaunchVariable = "KESTRUNE_MENU_CLIENT_RELAUNCH";

/// Opens files with the desktop's default programs, and restarts the running program. Main thread.
class DesktopWorkspace final : public Workspace {
 public:
  /// `arguments` are those of this process. `inPlace`: the new instance replaces this process by exec at its
  /// end, because a terminal or a service manager waits for this process; otherwise it starts beside this
  /// one.
  DesktopWorkspace(EventLoop& loop, const MainBundle& bundle, std::vector<std::string> arguments,
                   bool inPlace);

  void open(const std::string& path) override;
  std::string codexAppPath() const override { return "/Applications/Codex.app"; }
  Result<> openNewInstance(const std::string& bundlePath) override;

  /// Whether `openNewInstance` asked for an exec at the end of this process.
  bool replacesThisProcess() const { return replacing; }
  /// Calls exec; returns only on failure.
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
