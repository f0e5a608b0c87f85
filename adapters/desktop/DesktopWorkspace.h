#pragma once

#include <string>
#include <vector>

#include "adapters/loop/EventLoop.h"
#include "ports/MainBundle.h"
#include "ports/Workspace.h"

namespace kestrune {

/// In the environment of a client that is started to replace another: the process of that one.
inline constexpr auto relaunchVariable = "KESTRUNE_MENU_CLIENT_RELAUNCH";

/// Opens things as the desktop does, and starts the running program afresh. Main thread.
class DesktopWorkspace final : public Workspace {
 public:
  /// `arguments` are those that this process was started with. `inPlace`: the new instance takes over this
  /// very process at its end, as a terminal or a service manager needs it that waits for it, instead of
  /// running beside it.
  DesktopWorkspace(EventLoop& loop, const MainBundle& bundle, std::vector<std::string> arguments,
                   bool inPlace);

  void open(const std::string& path) override;
  std::string codexAppPath() const override { return "/Applications/Codex.app"; }
  Result<> openNewInstance(const std::string& bundlePath) override;

  /// Whether this process is to become the new instance at its end.
  bool replacesThisProcess() const { return replacing; }
  /// Becomes the new instance; returns only when that fails.
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
