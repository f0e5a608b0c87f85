#include "adapters/tray/MenuLayout.h"

#include <array>
#include <cctype>
#include <utility>

#include "text/Text.h"

namespace kestrune {

namespace {

/// Rows that a host may show below another one instead of behind it.
struct Submenu {
  int row;
  int first, last;
};
constexpr std::array submenus{Submenu{2, 3, 11}, Submenu{20, 21, 27}};

/// The text from which a host makes the row: an underscore alone would mark the letter behind it for the
/// keyboard.
std::string label(const std::string& title, const HostForm& form) {
  std::string text = displayRow(title);
  if (!form.firstUnderscoreOnly) return replacingAll(text, "_", "__");
  for (std::size_t at = 0; at + 1 < text.size(); ++at) {
    if (text[at] == '_' && text[at + 1] != '_') return text.insert(at, 1, '_');
  }
  return text;
}

/// A letter with Command becomes the letter with Control; an upper-case one has Shift, too.
MenuLayout::Shortcut shortcut(const std::string& keyEquivalent, const HostForm& form) {
  if (keyEquivalent.empty()) return {};
  MenuLayout::Shortcut keys{"Control"};
  const auto letter = static_cast<unsigned char>(keyEquivalent.front());
  if (std::isupper(letter)) keys.emplace_back("Shift");
  const bool isNamed = keyEquivalent == "," && !form.qtKeys;
  keys.push_back(isNamed ? "comma" : std::string(1, static_cast<char>(std::tolower(letter))));
  return keys;
}

MenuLayout::Properties propertiesOf(const MenuItem& item, const HostForm& form) {
  if (item.isSeparator) return {{"type", std::string("separator")}};
  MenuLayout::Properties properties{{"label", label(item.title, form)}, {"enabled", item.enabled}};
  if (item.checked) {
    properties["toggle-type"] = std::string("checkmark");
    properties["toggle-state"] = std::int32_t{*item.checked ? 1 : 0};
  }
  if (auto keys = shortcut(item.keyEquivalent, form); !keys.empty()) properties["shortcut"] = std::move(keys);
  return properties;
}

}  // namespace

MenuLayout menuLayout(const std::vector<MenuItem>& items, const HostForm& form) {
  MenuLayout rows;
  rows.children[MenuLayout::root] = {};
  for (const auto& item : items) rows.properties.emplace(item.id, propertiesOf(item, form));
  for (const auto& item : items) {
    int parent = MenuLayout::root;
    for (const auto& submenu : submenus) {
      if (!form.submenus || item.id < submenu.first || item.id > submenu.last) continue;
      if (rows.properties.contains(submenu.row)) parent = submenu.row;
    }
    rows.children[parent].push_back(item.id);
  }
  for (const auto& [id, children] : rows.children) {
    rows.properties[id]["children-display"] = std::string("submenu");
    // What is disabled cannot be opened.
    if (id != MenuLayout::root) rows.properties[id]["enabled"] = true;
  }
  return rows;
}

}  // namespace kestrune
