#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "adapters/bus/SessionBus.h"
#include "adapters/windows/MenuWindow.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// The status bar of a desktop: its tray, and a window of the menu for whoever has none. Main thread.
class TrayStatusBar final : public StatusBar {
 public:
  /// `onRegistered` runs whenever a tray has taken the icon; it may be null.
  TrayStatusBar(SessionBus& givenBus, DispatchQueue& givenQueue, MenuWindow& givenWindow,
                std::function<void()> givenOnRegistered = {})
      : bus(givenBus), queue(givenQueue), window(givenWindow), onRegistered(std::move(givenOnRegistered)) {}

  std::unique_ptr<StatusItem> statusItem(double length) override;

 private:
  SessionBus& bus;
  DispatchQueue& queue;
  MenuWindow& window;
  const std::function<void()> onRegistered;
};

}  // namespace kestrune
