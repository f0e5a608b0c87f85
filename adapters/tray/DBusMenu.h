#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "adapters/bus/SessionBus.h"
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

  void busConnected(sd_bus* bus);
  void busLost();

 private:
  using Shortcut = std::vector<std::string>;
  using Value = std::variant<std::string, bool, std::int32_t, Shortcut>;
  using Properties = std::map<std::string, Value, std::less<>>;
  /// Which properties are asked for.
  struct Filter {
    bool everything = true;
    std::set<std::string_view> names{};  ///< of those that a row can have
  };

  static Properties propertiesOf(const MenuItem& item);
  static int readFilter(sd_bus_message* call, Filter& filter);
  static int appendValue(sd_bus_message* message, const Value& value);
  static int appendProperties(sd_bus_message* message, const Properties& properties, const Filter& filter);
  static int appendRow(sd_bus_message* message, int id, const Properties& properties, const Filter& filter);

  void announce(const std::vector<int>& before, const std::map<int, Properties>& old);
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
  std::map<int, MenuItem> items;
  std::vector<int> order;
  std::map<int, Properties> exported;
  std::uint32_t revision = 1;

  sd_bus* bus = nullptr;
  BusSlot object;
};

}  // namespace kestrune
