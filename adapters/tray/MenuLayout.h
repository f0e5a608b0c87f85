#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "adapters/tray/TrayHostForm.h"
#include "ports/Menu.h"

namespace kestrune {

/// A menu in the form of com.canonical.dbusmenu: the properties of each row, and the tree of rows.
struct MenuLayout {
  using Shortcut = std::vector<std::string>;  ///< keys that are pressed together
  using Value = std::variant<std::string, bool, std::int32_t, Shortcut>;
  using Properties = std::map<std::string, Value, std::less<>>;

  static constexpr int root = 0;  ///< the ID of the menu itself

  std::map<int, Properties> properties;      ///< of the menu itself and of each row, by ID
  std::map<int, std::vector<int>> children;  ///< IDs of the top rows and of each submenu's rows, in order

  bool operator==(const MenuLayout&) const = default;
};

/// Returns the rows as this tray host wants them: `form` decides about submenus, underscores and key names.
MenuLayout menuLayout(const std::vector<MenuItem>& items, const TrayHostForm& form);

}  // namespace kestrune
