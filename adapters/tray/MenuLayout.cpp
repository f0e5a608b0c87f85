#include <cctype>

#include "adapters/tray/DBusMenu.h"
#include "text/Text.h"

namespace kestrune {

/// Rows that are moved into a submenu if the host's menu does not scroll: all rows after `row`, up to `last`.
constexpr struct {
  int row, last;  ///< IDs of the row that opens the submenu, and of the last row in it
} submenus[] = {{2, 11}, {20, 27}};

/// Returns the label that a host displays as `title`. Doubles the underscores that the host would hide: a
/// single underscore marks the access key.
static std::string label(const std::string& title, const TrayHostForm& form) {
  std::string text = displayRow(title);
  if (!form.firstUnderscoreOnly) return replacingAll(text, "_", "__");
  const std::size_t after = text.find_first_not_of('_', text.find('_'));
  return after == std::string::npos ? text : text.insert(after, 1, '_');
}

/// Returns the shortcut with the key `keyEquivalent`. An upper-case letter needs Shift.
static MenuLayout::Shortcut shortcut(const std::string& keyEquivalent, const TrayHostForm& form) {
  if (keyEquivalent == "," && !form.qtKeys) return {false, "comma"};
  const auto letter = static_cast<unsigned char>(keyEquivalent.front());
  return {std::isupper(letter) != 0, std::string(1, static_cast<char>(std::tolower(letter)))};
}

static MenuLayout::Properties propertiesOf(const MenuItem& item, const TrayHostForm& form) {
  if (item.isSeparator) return {{"type", std::string("separator")}};
  MenuLayout::Properties properties{{"label", label(item.title, form)}, {"enabled", item.enabled}};
  if (item.checked) {
    properties["toggle-type"] = std::string("checkmark");
    properties["toggle-state"] = std::int32_t{*item.checked ? 1 : 0};
  }
  if (!item.keyEquivalent.empty()) properties["shortcut"] = shortcut(item.keyEquivalent, form);
  return properties;
}

MenuLayout::MenuLayout(const std::vector<MenuItem>& items, const TrayHostForm& form) {
  for (const auto& item : items) properties.emplace(item.id, propertiesOf(item, form));
  for (const auto& item : items) {
    int parent = root;
    for (const auto& submenu : submenus) {
      if (!form.submenus || item.id <= submenu.row || item.id > submenu.last) continue;
      if (properties.contains(submenu.row)) parent = submenu.row;
    }
    children[parent].push_back(item.id);
  }
  for (const auto& [id, rows] : children) {
    properties[id]["children-display"] = std::string("submenu");
    // Enable each row that opens a submenu, because hosts do not open the submenu of a disabled row.
    if (id != root) properties[id]["enabled"] = true;
  }
}

}  // namespace kestrune
