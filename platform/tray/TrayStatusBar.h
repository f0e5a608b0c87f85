#pragma once

#include <memory>

#include "platform/StatusItem.h"
#include "platform/linux/SessionBus.h"
#include "platform/tray/MenuWindow.h"

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
