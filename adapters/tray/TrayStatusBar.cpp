#include "adapters/tray/TrayStatusBar.h"

#include "adapters/tray/StatusNotifierItem.h"

namespace kestrune {

namespace {

class TrayStatusItem final : public StatusItem {
 public:
  TrayStatusItem(SessionBus& bus, DispatchQueue& queue, const MainBundle& bundle,
                 MenuWindowProcess& givenWindow, ActivationToken& token,
                 const std::function<void()>& onRegistered)
      : item(
            bus, queue, bundle, token, [&givenWindow, &token] { givenWindow.show(token.take()); },
            onRegistered),
        window(givenWindow) {}

  bool hasButton() const override { return item.hasButton(); }
  void setButton(const StatusButton& button) override { item.setButton(button); }
  void setMenu(Menu menu) override {
    window.setMenu(menu);
    item.setMenu(std::move(menu));
  }

 private:
  StatusNotifierItem item;
  MenuWindowProcess& window;
};

}  // namespace

std::unique_ptr<StatusItem> TrayStatusBar::statusItem(double) {
  return std::make_unique<TrayStatusItem>(bus, queue, bundle, window, token, onRegistered);
}

}  // namespace kestrune
