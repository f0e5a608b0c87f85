#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "adapters/tray/HostForm.h"
#include "ports/Menu.h"

namespace kestrune {

/// A menu in the terms of com.canonical.dbusmenu: what each row shows, and which rows are below which.
struct MenuLayout {
  using Shortcut = std::vector<std::string>;  ///< keys that are pressed together
  using Value = std::variant<std::string, bool, std::int32_t, Shortcut>;
  using Properties = std::map<std::string, Value, std::less<>>;

  static constexpr int root = 0;  ///< the id of the menu itself

  std::map<int, Properties> properties;      ///< of the root and of every row, by id
  std::map<int, std::vector<int>> children;  ///< of the root and of every submenu: ids in their order

  bool operator==(const MenuLayout&) const = default;
};

/// Describes a menu of these items to a host of that form.
MenuLayout menuLayout(const std::vector<MenuItem>& items, const HostForm& form);

}  // namespace kestrune
