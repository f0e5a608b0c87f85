#include "adapters/tray/MenuMessages.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kestrune {

namespace {

constexpr std::array<std::string_view, 7> propertyNames{
    "children-display", "enabled", "label", "shortcut", "toggle-state", "toggle-type", "type"};

}  // namespace

int readFilter(sd_bus_message* call, PropertyFilter& filter) {
  int result = sd_bus_message_enter_container(call, 'a', "s");
  for (const char* name = nullptr; result >= 0 && (result = sd_bus_message_read(call, "s", &name)) > 0;) {
    filter.everything = false;
    const auto known = std::find(propertyNames.begin(), propertyNames.end(), name);
    if (known != propertyNames.end()) filter.names.insert(*known);
  }
  return result < 0 ? result : sd_bus_message_exit_container(call);
}

int readIds(sd_bus_message* call, std::vector<int>& ids) {
  const void* data = nullptr;
  std::size_t size = 0;
  if (const int result = sd_bus_message_read_array(call, 'i', &data, &size); result < 0) return result;
  ids.resize(size / sizeof(std::int32_t));
  if (!ids.empty()) std::memcpy(ids.data(), data, size);
  return 0;
}

int appendValue(sd_bus_message* message, const MenuLayout::Value& value) {
  if (const auto* const text = std::get_if<std::string>(&value)) {
    return sd_bus_message_append(message, "v", "s", text->c_str());
  }
  if (const auto* const flag = std::get_if<bool>(&value)) {
    return sd_bus_message_append(message, "v", "b", static_cast<int>(*flag));
  }
  if (const auto* const number = std::get_if<std::int32_t>(&value)) {
    return sd_bus_message_append(message, "v", "i", *number);
  }
  // A list of key presses, each a list of keys; ours is one press.
  const auto& keys = std::get<MenuLayout::Shortcut>(value);
  int result = sd_bus_message_open_container(message, 'v', "aas");
  if (result >= 0) result = sd_bus_message_open_container(message, 'a', "as");
  if (result >= 0) result = sd_bus_message_open_container(message, 'a', "s");
  for (const auto& key : keys) {
    if (result >= 0) result = sd_bus_message_append(message, "s", key.c_str());
  }
  for (int open = 0; open < 3; ++open) {
    if (result >= 0) result = sd_bus_message_close_container(message);
  }
  return result;
}

int appendProperties(sd_bus_message* message, const MenuLayout::Properties& properties,
                     const PropertyFilter& filter) {
  int result = sd_bus_message_open_container(message, 'a', "{sv}");
  for (const auto& [name, value] : properties) {
    if (!filter.everything && !filter.names.contains(name)) continue;
    if (result >= 0) result = sd_bus_message_open_container(message, 'e', "sv");
    if (result >= 0) result = sd_bus_message_append(message, "s", name.c_str());
    if (result >= 0) result = appendValue(message, value);
    if (result >= 0) result = sd_bus_message_close_container(message);
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

}  // namespace kestrune
