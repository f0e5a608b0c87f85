#pragma once

#include <cstdint>
#include <vector>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/MenuMessages.h"
#include "ports/DispatchQueue.h"
#include "ports/Menu.h"

namespace kestrune {

/// Exports a menu as com.canonical.dbusmenu. Hosts are told only of the rows and properties that changed, so
/// that an open menu stays open and changes in place. Main thread.
class DBusMenu {
 public:
  static constexpr auto objectPath = "/MenuBar";

  /// What the user chooses is performed on `queue`, once the host has its answer.
  explicit DBusMenu(DispatchQueue& queue);

  void setMenu(Menu menu);
  /// Sets what the host needs. Before the first call, the needs of most hosts are assumed.
  void setForm(const HostForm& form);

  void busConnected(sd_bus* bus);
  void busLost();

 private:
  void rebuild();
  void announce(const MenuLayout& before);
  int appendRow(sd_bus_message* message, int id, int depth, const PropertyFilter& filter);
  bool hasRow(int id) const;
  void choose(int id);

  int getLayout(sd_bus_message* call, sd_bus_error* error);
  int getGroupProperties(sd_bus_message* call, sd_bus_error* error);
  int getProperty(sd_bus_message* call, sd_bus_error* error);
  int event(sd_bus_message* call, sd_bus_error* error);
  int eventGroup(sd_bus_message* call, sd_bus_error* error);
  int aboutToShow(sd_bus_message* call, sd_bus_error* error);
  int aboutToShowGroup(sd_bus_message* call, sd_bus_error* error);

  /// Makes a method above a handler of the bus.
  template <int (DBusMenu::*method)(sd_bus_message*, sd_bus_error*)>
  static int handler(sd_bus_message* call, void* self, sd_bus_error* error) {
    return (static_cast<DBusMenu*>(self)->*method)(call, error);
  }
  static const sd_bus_vtable interface[];

  DispatchQueue& queue;
  std::vector<MenuItem> items;
  HostForm form;
  MenuLayout rows = menuLayout({}, {});
  std::uint32_t revision = 1;

  sd_bus* bus = nullptr;
  BusSlot object;
};

}  // namespace kestrune
