#pragma once

#include <string>
#include <utility>
#include <vector>

#include "adapters/loop/EventLoop.h"
#include "ports/Desktop.h"
#include "ports/MainBundle.h"

namespace kestrune {

/// The environment variable that a restart sets for the new client. It contains the PID of the old client.
inline constexpr auto relaunchVariable = "KESTRUNE_MENU_CLIENT_RELAUNCH";

/// What has started the client.
enum class Starter { desktop, terminal, service };

/// Opens files with the desktop's default programs, and restarts the client. Main thread.
class DesktopWorkspace final : public Workspace {
 public:
  /// `givenArguments` are the arguments of this process. A restart starts a second process, or replaces this
  /// process by exec if `givenStarter` waits for its end (terminal, service manager). For a service, `open`
  /// starts programs in a systemd scope. The loop and the bundle must outlive this object.
  DesktopWorkspace(EventLoop& givenLoop, const MainBundle& givenBundle,
                   std::vector<std::string> givenArguments, Starter givenStarter)
      : loop(givenLoop), bundle(givenBundle), arguments(std::move(givenArguments)), starter(givenStarter) {}

  void open(const std::string& path) override;
  Result<> openNewInstance(const std::string& bundlePath) override;

  /// Returns whether `openNewInstance` has requested a restart in place. If so, the caller must call
  /// `replaceThisProcess` instead of exiting.
  bool replacesThisProcess() const { return replacing; }
  /// Replaces this process by exec. If exec fails, prints the reason on standard error and returns.
  void replaceThisProcess() const;

 private:
  EventLoop& loop;
  const MainBundle& bundle;
  const std::vector<std::string> arguments;
  const Starter starter;
  bool replacing = false;
};

}  // namespace kestrune
