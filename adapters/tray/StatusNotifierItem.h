#pragma once

#include <functional>
#include <optional>
#include <string_view>
#include <utility>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/DBusMenu.h"
#include "adapters/tray/TrayHostForm.h"
#include "ports/MainBundle.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// The objects that a tray item uses. The objects behind the references outlive the item.
struct TrayParts {
  SessionBus& bus;
  DispatchQueue& queue;           ///< the main queue
  const MainBundle& bundle;       ///< contains the icon files
  std::function<void()> onClick;  ///< called at a click if the tray host does not open the menu itself
  /// Called with the activation token that the host sends before a click. The token may have any length, and
  /// may come from any program on the bus.
  std::function<void(std::string_view)> onToken = [](std::string_view) {};
  std::function<void(const Menu&)> onMenu = [](const Menu&) {};  ///< called when the menu has changed
  std::function<void()> onRegistered = [] {};  ///< called when a watcher has accepted the item
};

/// A status item with a menu, exported on the session bus as org.kde.StatusNotifierItem. Registers with each
/// StatusNotifierWatcher that appears on the bus. Needs no display. Main thread.
class StatusNotifierItem final : public StatusItem, public BusClient {
 public:
  static constexpr auto objectPath = "/StatusNotifierItem";

  /// Exports nothing before `addToStatusBar`.
  explicit StatusNotifierItem(TrayParts given) : BusClient(given.bus), parts(std::move(given)) {}

  void addToStatusBar(double length) override;
  bool hasButton() const override { return true; }
  void setButton(const StatusButton& button) override;
  void setMenu(Menu menu) override {
    parts.onMenu(menu);
    exportedMenu->setMenu(std::move(menu));
  }

  void busConnected() override;

 private:
  void registerWithWatcher();
  void registered(sd_bus_message* reply);
  /// A tray host has started. Registers again, because the watcher may have refused the item while no host
  /// ran. Registering twice is harmless.
  void hostRegistered(sd_bus_message* signal) {
    if (isBroadcast(signal)) registerWithWatcher();
  }
  static int property(sd_bus* bus, const char* path, const char* interface, const char* name,
                      sd_bus_message* reply, void* self, sd_bus_error* error);
  int activate(sd_bus_message* call, sd_bus_error* error) {
    if (hosts->form().menuAtError)
      return sd_bus_error_set_const(error, SD_BUS_ERROR_NOT_SUPPORTED, "The host opens the menu");
    return click(call, error);
  }
  int click(sd_bus_message* call, sd_bus_error*) {
    parts.queue.async(parts.onClick);
    return sd_bus_reply_method_return(call, "");
  }
  int provideToken(sd_bus_message* call, sd_bus_error* error);

  const TrayParts parts;
  std::optional<TrayHostFinder> hosts;
  std::optional<DBusMenu> exportedMenu;
  StatusButton button;
  BusSlot object, hostMatch, registration;
};

}  // namespace kestrune
