#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/TrayHostForm.h"
#include "ports/Loop.h"
#include "ports/Menu.h"

namespace kestrune {

/// A menu in the form of com.canonical.dbusmenu: the properties of each row, and the tree of rows.
struct MenuLayout {
  /// Makes the layout of `items` for the tray host that `form` describes. Without submenus, the menu itself
  /// contains all rows.
  MenuLayout(const std::vector<MenuItem>& items, const TrayHostForm& form);

  using Shortcut = std::pair<bool, std::string>;  ///< whether Shift is pressed with Control; the key
  using Value = std::variant<std::string, bool, std::int32_t, Shortcut>;
  using Properties = std::map<std::string, Value, std::less<>>;

  static constexpr int root = 0;  ///< the ID of the menu itself

  std::map<int, Properties> properties;                  ///< of the menu itself and of each row, by ID
  std::map<int, std::vector<int>> children{{root, {}}};  ///< IDs of rows, by ID of their menu or submenu

  bool operator==(const MenuLayout&) const = default;
};

/// Exports a menu as com.canonical.dbusmenu, the D-Bus interface from which tray hosts read menus. An open
/// menu shows changed properties in place. It closes only when rows come, go or move. Main thread.
class DBusMenu final : public BusClient {
 public:
  static constexpr auto objectPath = "/MenuBar";

  /// `givenQueue` runs the actions of chosen rows, so that the host need not wait for the end of an action.
  /// `givenForm` describes the present tray host. Both must outlive this object.
  DBusMenu(BusConnection& givenConnection, DispatchQueue& givenQueue, const TrayHostForm& givenForm)
      : BusClient(givenConnection), queue(givenQueue), form(givenForm) {
    connection.add(*this);
  }

  void setMenu(Menu menu) {
    items = std::move(menu.items);
    rebuild();
  }
  /// Makes the rows from the menu and the form. Call this when the form has changed.
  void rebuild();

  void busConnected() override;

 private:
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

  DispatchQueue& queue;
  std::vector<MenuItem> items;
  const TrayHostForm& form;
  MenuLayout rows{{}, {}};
  std::set<int> clickedRows;  ///< IDs of the rows that were clicked since the last `rebuild`
  std::uint32_t revision = 1;
  BusSlot object;
};

}  // namespace kestrune
