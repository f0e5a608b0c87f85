#pragma once

#include <memory>

#include "adapters/bus/SessionBus.h"
#include "adapters/windows/MenuWindow.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// The status bar of a desktop: its tray, and a window of the menu for whoever has none. Main thread.
class TrayStatusBar final : public StatusBar {
 public:
  TrayStatusBar(SessionBus& givenBus, DispatchQueue& givenQueue, MenuWindow& givenWindow)
      : bus(givenBus), queue(givenQueue), window(givenWindow) {}

  std::unique_ptr<StatusItem> statusItem(double length) override;

 private:
  SessionBus& bus;
  DispatchQueue& queue;
  MenuWindow& window;
};

}  // namespace kestrune
