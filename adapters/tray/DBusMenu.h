#pragma once

#include <cstdint>
#include <vector>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/MenuLayout.h"
#include "ports/DispatchQueue.h"
#include "ports/Menu.h"

namespace kestrune {

/// Exports a menu as com.canonical.dbusmenu, the D-Bus interface from which tray hosts (programs that show
/// tray icons) read menus. Announces only changed rows and properties, so that an open menu stays open and
/// changes in place. Main thread.
class DBusMenu final : public BusClient {
 public:
  static constexpr auto objectPath = "/MenuBar";

  /// Actions of chosen rows run on `givenQueue`, after the reply to the host. `givenQueue` outlives this.
  DBusMenu(BusConnection& givenConnection, DispatchQueue& givenQueue);

  void setMenu(Menu menu);
  /// Tells how the present tray host differs from most hosts. Without a call, no difference is assumed.
  void setForm(const TrayHostForm& form);

  void busConnected() override;
  void busLost() override;

 private:
  void rebuild();
  void announce(const MenuLayout& before);
  bool hasRow(int id) const { return rows.properties.contains(id); }
  void choose(int id);

  int getLayout(sd_bus_message* call, sd_bus_error* error);
  int getGroupProperties(sd_bus_message* call, sd_bus_error* error);
  int getProperty(sd_bus_message* call, sd_bus_error* error);
  int event(sd_bus_message* call, sd_bus_error* error);
  int eventGroup(sd_bus_message* call, sd_bus_error* error);
  int aboutToShow(sd_bus_message* call, sd_bus_error* error);
  int aboutToShowGroup(sd_bus_message* call, sd_bus_error* error);

  /// Turns one of the methods above into a handler for sd-bus.
  template <int (DBusMenu::*method)(sd_bus_message*, sd_bus_error*)>
  static int handler(sd_bus_message* call, void* self, sd_bus_error* error) {
    return (static_cast<DBusMenu*>(self)->*method)(call, error);
  }
  static const sd_bus_vtable interface[];

  DispatchQueue& queue;
  std::vector<MenuItem> items;
  TrayHostForm form;
  MenuLayout rows = menuLayout({}, {});
  std::uint32_t revision = 1;
  BusSlot object;
};

}  // namespace kestrune
