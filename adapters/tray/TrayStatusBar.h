#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "adapters/bus/SessionBus.h"
#include "adapters/windows/ActivationToken.h"
#include "adapters/windows/MenuWindowProcess.h"
#include "ports/MainBundle.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// The status bar of a desktop: its tray, and the menu as a window for a desktop without one. Main thread.
class TrayStatusBar final : public StatusBar {
 public:
  /// `onRegistered` runs whenever a tray has taken the icon; it may be null.
  TrayStatusBar(SessionBus& givenBus, DispatchQueue& givenQueue, const MainBundle& givenBundle,
                MenuWindowProcess& givenWindow, ActivationToken& givenToken,
                std::function<void()> givenOnRegistered = {})
      : bus(givenBus),
        queue(givenQueue),
        bundle(givenBundle),
        window(givenWindow),
        token(givenToken),
        onRegistered(std::move(givenOnRegistered)) {}

  std::unique_ptr<StatusItem> statusItem(double length) override;

 private:
  SessionBus& bus;
  DispatchQueue& queue;
  const MainBundle& bundle;
  MenuWindowProcess& window;
  ActivationToken& token;
  const std::function<void()> onRegistered;
};

}  // namespace kestrune
