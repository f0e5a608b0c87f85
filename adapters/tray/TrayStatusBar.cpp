#include "adapters/tray/TrayStatusBar.h"

#include "adapters/tray/StatusNotifierItem.h"

namespace kestrune {

namespace {

class TrayStatusItem final : public StatusItem {
 public:
  TrayStatusItem(SessionBus& bus, DispatchQueue& queue, MenuWindow& givenWindow,
                 const std::function<void()>& onRegistered)
      : item(
            bus, queue, [&givenWindow] { givenWindow.show(); }, onRegistered),
        window(givenWindow) {}

  bool hasButton() const override { return item.hasButton(); }
  void setButton(const StatusButton& button) override { item.setButton(button); }
  void setMenu(Menu menu) override {
    window.setMenu(menu);
    item.setMenu(std::move(menu));
  }

 private:
  StatusNotifierItem item;
  MenuWindow& window;
};

}  // namespace

std::unique_ptr<StatusItem> TrayStatusBar::statusItem(double) {
  return std::make_unique<TrayStatusItem>(bus, queue, window, onRegistered);
}

}  // namespace kestrune
