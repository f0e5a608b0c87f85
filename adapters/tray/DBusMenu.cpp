#include "adapters/tray/DBusMenu.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace kestrune {

constexpr auto menuInterface = "com.canonical.dbusmenu";
constexpr std::string_view clickEvent = "clicked";

constexpr std::string_view propertyNames[] = {"children-display", "enabled",     "label", "shortcut",
                                              "toggle-state",     "toggle-type", "type"};

/// The names of the properties that a host asks for; empty: it asks for all properties.
using PropertyFilter = std::set<std::string_view>;
using Ids = std::span<const std::int32_t>;

static int readFilter(sd_bus_message* call, PropertyFilter& filter) {
  int result = sd_bus_message_enter_container(call, 'a', "s");
  for (const char* name = nullptr; result >= 0 && (result = sd_bus_message_read(call, "s", &name)) > 0;) {
    // Insert "" for an unknown name: the filter must not stay empty, and a caller may send millions of names.
    const auto* const known = std::ranges::find(propertyNames, std::string_view(name));
    filter.insert(known == std::end(propertyNames) ? "" : *known);
  }
  return result < 0 ? result : sd_bus_message_exit_container(call);
}

/// Reads an array of IDs. Afterwards, `ids` points into the message `call` and is valid as long as `call`.
static int readIds(sd_bus_message* call, Ids& ids) {
  const void* data = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(call, 'i', &data, &size);
  if (result >= 0) ids = Ids(static_cast<const std::int32_t*>(data), size / sizeof(std::int32_t));
  return result;
}

// The functions that append to a message report no error: if an allocation fails in one of them,
// sd_bus_send(3) later fails with ESTALE or EBADMSG.

static void appendValue(sd_bus_message* message, const MenuLayout::Value& value) {
  if (const auto* const text = std::get_if<std::string>(&value)) {
    sd_bus_message_append(message, "v", "s", text->c_str());
  } else if (const auto* const flag = std::get_if<bool>(&value)) {
    sd_bus_message_append(message, "v", "b", static_cast<int>(*flag));
  } else if (const auto* const number = std::get_if<std::int32_t>(&value)) {
    sd_bus_message_append(message, "v", "i", *number);
  } else {
    // The interface expects a list of key combinations, each a list of keys. A row has one combination.
    const auto& [shift, key] = std::get<MenuLayout::Shortcut>(value);
    if (shift) sd_bus_message_append(message, "v", "aas", 1, 3, "Control", "Shift", key.c_str());
    if (!shift) sd_bus_message_append(message, "v", "aas", 1, 2, "Control", key.c_str());
  }
}

static void appendProperties(sd_bus_message* message, const MenuLayout::Properties& properties,
                             const PropertyFilter& filter) {
  sd_bus_message_open_container(message, 'a', "{sv}");
  for (const auto& [name, value] : properties) {
    if (!filter.empty() && !filter.contains(name)) continue;
    sd_bus_message_open_container(message, 'e', "sv");
    sd_bus_message_append(message, "s", name.c_str());
    appendValue(message, value);
    sd_bus_message_close_container(message);
  }
  sd_bus_message_close_container(message);
}

static void appendRowProperties(sd_bus_message* message, int id, const MenuLayout::Properties& properties,
                                const PropertyFilter& filter = {}) {
  sd_bus_message_open_container(message, 'r', "ia{sv}");
  sd_bus_message_append(message, "i", id);
  appendProperties(message, properties, filter);
  sd_bus_message_close_container(message);
}

/// Appends the row `id` and the rows below it, down to `depth` levels; a negative `depth` means all levels.
static void appendTree(sd_bus_message* message, const MenuLayout& rows, int id, int depth,
                       const PropertyFilter& filter) {
  sd_bus_message_open_container(message, 'r', "ia{sv}av");
  sd_bus_message_append(message, "i", id);
  appendProperties(message, rows.properties.at(id), filter);
  sd_bus_message_open_container(message, 'a', "v");
  if (depth != 0 && rows.children.contains(id)) {
    for (const int child : rows.children.at(id)) {
      sd_bus_message_open_container(message, 'v', "(ia{sv}av)");
      appendTree(message, rows, child, depth - 1, filter);
      sd_bus_message_close_container(message);
    }
  }
  sd_bus_message_close_container(message);
  sd_bus_message_close_container(message);
}

static int unknownId(sd_bus_error* error, int id) {
  return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "The menu has no item %d", id);
}

static BusMessage replyTo(sd_bus_message* call) {
  BusMessage reply;
  sd_bus_message_new_method_return(call, Into(reply));
  return reply;
}

static int constantProperty(sd_bus*, const char*, const char*, const char* name, sd_bus_message* reply, void*,
                            sd_bus_error*) {
  const std::string_view property = name;
  if (property == "Version") return sd_bus_message_append(reply, "u", 3);
  if (property == "IconThemePath") return sd_bus_message_append(reply, "as", 0);
  return sd_bus_message_append(reply, "s", property == "Status" ? "normal" : "ltr");
}

void DBusMenu::busConnected() {
  constexpr auto everyUser = SD_BUS_VTABLE_UNPRIVILEGED;
  static const sd_bus_vtable interface[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_PROPERTY("Version", "u", &constantProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
      SD_BUS_PROPERTY("TextDirection", "s", &constantProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
      SD_BUS_PROPERTY("Status", "s", &constantProperty, 0, 0),
      SD_BUS_PROPERTY("IconThemePath", "as", &constantProperty, 0, 0),
      SD_BUS_METHOD("GetLayout", "iias", "u(ia{sv}av)", &handler<&DBusMenu::getLayout>, everyUser),
      SD_BUS_METHOD("GetGroupProperties", "aias", "a(ia{sv})", &handler<&DBusMenu::getGroupProperties>,
                    everyUser),
      SD_BUS_METHOD("GetProperty", "is", "v", &handler<&DBusMenu::getProperty>, everyUser),
      SD_BUS_METHOD("Event", "isvu", "", &handler<&DBusMenu::event>, everyUser),
      SD_BUS_METHOD("EventGroup", "a(isvu)", "ai", &handler<&DBusMenu::eventGroup>, everyUser),
      SD_BUS_METHOD("AboutToShow", "i", "b", &handler<&DBusMenu::aboutToShow>, everyUser),
      SD_BUS_METHOD("AboutToShowGroup", "ai", "aiai", &handler<&DBusMenu::aboutToShowGroup>, everyUser),
      SD_BUS_SIGNAL("ItemsPropertiesUpdated", "a(ia{sv})a(ias)", 0),
      SD_BUS_SIGNAL("LayoutUpdated", "ui", 0),
      SD_BUS_VTABLE_END,
  };
  sd_bus_add_object_vtable(bus, Into(object), objectPath, menuInterface, interface, this);
}

void DBusMenu::rebuild() {
  MenuLayout before = std::exchange(rows, MenuLayout(items, form));
  // Some hosts, such as MATE's panel, change the check mark of a clicked row themselves. So send the mark
  // again, also if the action has not changed it.
  for (const int id : std::exchange(clickedRows, {})) before.properties[id].erase("toggle-state");
  if (rows == before) return;
  ++revision;
  if (bus != nullptr) announce(before);
}

/// Tells hosts what has changed since `before`. A host that gets LayoutUpdated rebuilds the menu and thereby
/// closes it, so send this signal only when rows come, go or move. Even then, send the changed properties
/// too, because some hosts do not read the properties of all rows again.
void DBusMenu::announce(const MenuLayout& before) {
  if (rows.children != before.children)
    sd_bus_emit_signal(bus, objectPath, menuInterface, "LayoutUpdated", "ui", revision, MenuLayout::root);
  std::map<int, MenuLayout::Properties> updated;
  std::map<int, std::vector<std::string>> removed;
  for (const auto& [id, properties] : rows.properties) {
    if (!before.properties.contains(id)) continue;
    const MenuLayout::Properties& previous = before.properties.at(id);
    for (const auto& [name, value] : properties) {
      if (!previous.contains(name) || previous.at(name) != value) updated[id].emplace(name, value);
    }
    for (const auto& [name, value] : previous) {
      if (!properties.contains(name)) removed[id].push_back(name);
    }
  }
  if (updated.empty() && removed.empty()) return;

  BusMessage signal;
  sd_bus_message_new_signal(bus, Into(signal), objectPath, menuInterface, "ItemsPropertiesUpdated");
  sd_bus_message_open_container(signal.get(), 'a', "(ia{sv})");
  for (const auto& [id, properties] : updated) appendRowProperties(signal.get(), id, properties);
  sd_bus_message_close_container(signal.get());
  sd_bus_message_open_container(signal.get(), 'a', "(ias)");
  for (const auto& [id, names] : removed) {
    sd_bus_message_open_container(signal.get(), 'r', "ias");
    sd_bus_message_append(signal.get(), "i", id);
    sd_bus_message_open_container(signal.get(), 'a', "s");
    for (const auto& name : names) sd_bus_message_append(signal.get(), "s", name.c_str());
    sd_bus_message_close_container(signal.get());
    sd_bus_message_close_container(signal.get());
  }
  sd_bus_message_close_container(signal.get());
  sd_bus_send(bus, signal.get(), nullptr);
}

int DBusMenu::getLayout(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t parent = 0, depth = 0;
  PropertyFilter filter;
  if (const int result = sd_bus_message_read(call, "ii", &parent, &depth); result < 0) return result;
  if (const int result = readFilter(call, filter); result < 0) return result;
  if (!hasRow(parent)) return unknownId(error, parent);

  const BusMessage reply = replyTo(call);
  sd_bus_message_append(reply.get(), "u", revision);
  appendTree(reply.get(), rows, parent, std::max(depth, -1), filter);
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

int DBusMenu::getGroupProperties(sd_bus_message* call, sd_bus_error*) {
  Ids ids;
  PropertyFilter filter;
  if (const int result = readIds(call, ids); result < 0) return result;
  if (const int result = readFilter(call, filter); result < 0) return result;

  const BusMessage reply = replyTo(call);
  // Return each row once, even if the call names it many times. Otherwise a caller could make the reply huge.
  sd_bus_message_open_container(reply.get(), 'a', "(ia{sv})");
  for (const auto& [id, properties] : rows.properties) {
    const bool isWanted = ids.empty() || std::find(ids.begin(), ids.end(), id) != ids.end();
    if (isWanted) appendRowProperties(reply.get(), id, properties, filter);
  }
  sd_bus_message_close_container(reply.get());
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

int DBusMenu::getProperty(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t id = 0;
  const char* name = nullptr;
  if (const int result = sd_bus_message_read(call, "is", &id, &name); result < 0) return result;
  if (!hasRow(id)) return unknownId(error, id);
  const auto& properties = rows.properties.at(id);
  if (!properties.contains(name))
    return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "Item %d has no such property", id);
  const BusMessage reply = replyTo(call);
  appendValue(reply.get(), properties.at(name));
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

/// Runs the action of the row `id` in a later job, so that the host gets its reply first.
void DBusMenu::choose(int id) {
  const auto item = std::ranges::find(items, id, &MenuItem::id);
  if (item == items.end()) return;
  clickedRows.insert(id);
  queue.async([chosen = *item] { performMenuItem(chosen); });
}

int DBusMenu::event(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t id = 0;
  const char* name = nullptr;
  if (const int result = sd_bus_message_read(call, "is", &id, &name); result < 0) return result;
  if (!hasRow(id)) return unknownId(error, id);
  if (name == clickEvent) choose(id);
  return sd_bus_reply_method_return(call, "");
}

int DBusMenu::eventGroup(sd_bus_message* call, sd_bus_error* error) {
  // Choose each row once, even if the call contains many clicks on it.
  std::set<int> clicked, known, unknown;
  int result = sd_bus_message_enter_container(call, 'a', "(isvu)");
  while (result >= 0 && (result = sd_bus_message_enter_container(call, 'r', "isvu")) > 0) {
    std::int32_t id = 0;
    const char* name = nullptr;
    result = sd_bus_message_read(call, "is", &id, &name);
    if (result >= 0) result = sd_bus_message_skip(call, "vu");
    if (result >= 0) result = sd_bus_message_exit_container(call);
    if (result < 0) break;
    (hasRow(id) ? known : unknown).insert(id);
    if (hasRow(id) && name == clickEvent && clicked.insert(id).second) choose(id);
  }
  if (result < 0) return result;
  if (known.empty() && !unknown.empty()) return unknownId(error, *unknown.begin());
  const std::vector<int> listed(unknown.begin(), unknown.end());
  const BusMessage reply = replyTo(call);
  sd_bus_message_append_array(reply.get(), 'i', listed.data(), listed.size() * sizeof(int));
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

int DBusMenu::aboutToShow(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t id = 0;
  if (const int result = sd_bus_message_read(call, "i", &id); result < 0) return result;
  if (!hasRow(id)) return unknownId(error, id);
  return sd_bus_reply_method_return(call, "b", 0);
}

int DBusMenu::aboutToShowGroup(sd_bus_message* call, sd_bus_error* error) {
  Ids ids;
  if (const int result = readIds(call, ids); result < 0) return result;
  std::vector<int> unknown(ids.begin(), ids.end());
  const std::size_t known = std::erase_if(unknown, [this](int id) { return hasRow(id); });
  if (known == 0 && !unknown.empty()) return unknownId(error, unknown.front());
  const BusMessage reply = replyTo(call);
  sd_bus_message_append(reply.get(), "ai", 0);
  sd_bus_message_append_array(reply.get(), 'i', unknown.data(), unknown.size() * sizeof(int));
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

}  // namespace kestrune
