#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/DBusMenu.h"
#include "adapters/tray/HostForm.h"
#include "adapters/windows/ActivationToken.h"
#include "ports/MainBundle.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// A status item exported as org.kde.StatusNotifierItem, with its menu beside it. Registers with the tray
/// whenever there is one. Needs no display. Main thread.
class StatusNotifierItem final : public StatusItem, public BusClient {
 public:
  static constexpr auto objectPath = "/StatusNotifierItem";
  /// Who lists the items for the hosts that show them; the name is that of its interface, too.
  static constexpr auto watcherName = HostFinder::watcherName;
  static constexpr auto watcherPath = "/StatusNotifierWatcher";

  /// `onActivate` runs when a host reports a click, with whichever button, instead of showing the menu.
  /// `onRegistered` runs whenever a tray has taken the item; it may be null. `bundle` has the files of the
  /// icon; `token` is given what the host gives for the window.
  StatusNotifierItem(SessionBus& bus, DispatchQueue& queue, const MainBundle& bundle, ActivationToken& token,
                     std::function<void()> onActivate, std::function<void()> onRegistered = {});
  ~StatusNotifierItem() override;

  bool hasButton() const override { return true; }
  void setButton(const StatusButton& button) override;
  void setMenu(Menu menu) override { exportedMenu.setMenu(std::move(menu)); }

  void busConnected(sd_bus* bus) override;
  void busLost() override;

 private:
  /// One resolution of the icon in the bytes that hosts expect: alpha, red, green, blue.
  struct Pixmap {
    std::int32_t width;
    std::int32_t height;
    std::vector<std::uint8_t> argb;
  };

  void registerWithWatcher();
  void formChanged();
  std::string iconName() const;
  int appendPixmaps(sd_bus_message* message, const std::vector<Pixmap>& some) const;
  int appendToolTip(sd_bus_message* message) const;
  static int registered(sd_bus_message* reply, void* self, sd_bus_error* error);
  static int hostRegistered(sd_bus_message* signal, void* self, sd_bus_error* error);
  static int property(sd_bus* bus, const char* path, const char* interface, const char* name,
                      sd_bus_message* reply, void* self, sd_bus_error* error);
  static int activate(sd_bus_message* call, void* self, sd_bus_error* error);
  static int openWindow(sd_bus_message* call, void* self, sd_bus_error* error);
  static int provideToken(sd_bus_message* call, void* self, sd_bus_error* error);
  static int ignore(sd_bus_message* call, void* self, sd_bus_error* error);
  static const sd_bus_vtable interface[];

  SessionBus& sessionBus;
  DispatchQueue& queue;
  const MainBundle& bundle;
  ActivationToken& token;
  const std::function<void()> onActivate, onRegistered;
  DBusMenu exportedMenu;
  HostFinder hosts;

  StatusButton button;
  std::vector<Pixmap> pixmaps;
  std::string toolTip;

  sd_bus* bus = nullptr;
  BusSlot object, hostMatch, registration;
};

}  // namespace kestrune
