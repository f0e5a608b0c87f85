#pragma once

#include <memory>

#include "platform/MainBundle.h"
#include "platform/StatusItem.h"
#include "platform/linux/SessionBus.h"
#include "platform/tray/ActivationToken.h"
#include "platform/tray/MenuWindow.h"

namespace kestrune {

/// The status bar of a desktop: its tray, and a window of the menu for whoever has none. Main thread.
class TrayStatusBar final : public StatusBar {
 public:
  TrayStatusBar(SessionBus& givenBus, DispatchQueue& givenQueue, const MainBundle& givenBundle,
                MenuWindow& givenWindow, ActivationToken& givenToken)
      : bus(givenBus), queue(givenQueue), bundle(givenBundle), window(givenWindow), token(givenToken) {}

  std::unique_ptr<StatusItem> statusItem(double length) override;

 private:
  SessionBus& bus;
  DispatchQueue& queue;
  const MainBundle& bundle;
  MenuWindow& window;
  ActivationToken& token;
};

}  // namespace kestrune
