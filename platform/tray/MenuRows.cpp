#include "platform/tray/MenuRows.h"

#include <cctype>
#include <utility>

#include "KestruneMenuClient/Text.h"

namespace kestrune {

namespace {

/// The row as a host shows it: an underscore alone would mark the letter behind it for the keyboard.
std::string label(const std::string& title) {
  return replacingAll(displayRow(title), "_", "__");
}

/// A letter with Command becomes the letter with Control; an upper-case one has Shift, too.
MenuRows::Shortcut shortcut(const std::string& keyEquivalent) {
  if (keyEquivalent.empty()) return {};
  MenuRows::Shortcut keys{"Control"};
  const auto letter = static_cast<unsigned char>(keyEquivalent.front());
  if (std::isupper(letter)) keys.emplace_back("Shift");
  keys.push_back(keyEquivalent == "," ? "comma" : std::string(1, static_cast<char>(std::tolower(letter))));
  return keys;
}

MenuRows::Properties propertiesOf(const MenuItem& item) {
  if (item.isSeparator) return {{"type", std::string("separator")}};
  MenuRows::Properties properties{{"label", label(item.title)}, {"enabled", item.enabled}};
  if (item.checked) {
    properties["toggle-type"] = std::string("checkmark");
    properties["toggle-state"] = std::int32_t{*item.checked ? 1 : 0};
  }
  if (auto keys = shortcut(item.keyEquivalent); !keys.empty()) properties["shortcut"] = std::move(keys);
  return properties;
}

}  // namespace

MenuRows menuRows(const std::vector<MenuItem>& items) {
  MenuRows rows;
  rows.properties[MenuRows::root] = {{"children-display", std::string("submenu")}};
  for (const auto& item : items) {
    rows.properties.emplace(item.id, propertiesOf(item));
    rows.children[MenuRows::root].push_back(item.id);
  }
  return rows;
}

}  // namespace kestrune
