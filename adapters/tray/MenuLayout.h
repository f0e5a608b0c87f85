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

/// A menu as com.canonical.dbusmenu describes it: the properties of each row, and the tree of rows.
struct MenuLayout {
  using Shortcut = std::vector<std::string>;  ///< keys that are pressed together
  using Value = std::variant<std::string, bool, std::int32_t, Shortcut>;
  using Properties = std::map<std::string, Value, std::less<>>;

  static constexpr int root = 0;  ///< the id of the menu itself

  std::map<int, Properties> properties;      ///< of the root and of each row, by id
  std::map<int, std::vector<int>> children;  ///< ids below the root and below each submenu, in order

  bool operator==(const MenuLayout&) const = default;
};

/// The layout of these items for a host of that form.
MenuLayout menuLayout(const std::vector<MenuItem>& items, const TrayHostForm& form);

}  // namespace kestrune
