#include "adapters/tray/DBusMenu.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "adapters/tray/MenuMessages.h"
#include "text/Text.h"

namespace kestrune {

namespace {

constexpr auto interfaceName = "com.canonical.dbusmenu";
constexpr std::uint32_t protocolVersion = 3;

int unknownId(sd_bus_error* error, int id) {
  return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "The menu has no item %d", id);
}

bool isClick(const char* event) {
  return std::strcmp(event, "clicked") == 0;
}

/// Ids, each once. Beside a question of millions of them, a tree would be larger than the question.
class IdSet {
 public:
  void insert(int id) {
    if (ids.size() >= limit) {
      tidy();
      limit = std::max(limit, 2 * ids.size());
    }
    ids.push_back(id);
  }

  const std::vector<int>& sorted() {
    tidy();
    return ids;
  }

 private:
  void tidy() {
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  }

  std::size_t limit = 1024;
  std::vector<int> ids;
};

BusMessage replyTo(sd_bus_message* call) {
  sd_bus_message* reply = nullptr;
  sd_bus_message_new_method_return(call, &reply);
  return BusMessage(reply);
}

int send(const BusMessage& message, int result) {
  return result < 0 ? result : sd_bus_send(nullptr, message.get(), nullptr);
}

}  // namespace

const sd_bus_vtable DBusMenu::interface[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY(
        "Version", "u",
        [](sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
          return sd_bus_message_append(reply, "u", protocolVersion);
        },
        0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY(
        "TextDirection", "s",
        [](sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
          return sd_bus_message_append(reply, "s", "ltr");
        },
        0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY(
        "Status", "s",
        [](sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
          return sd_bus_message_append(reply, "s", "normal");
        },
        0, 0),
    SD_BUS_PROPERTY(
        "IconThemePath", "as",
        [](sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
          return sd_bus_message_append(reply, "as", 0);
        },
        0, 0),
    SD_BUS_METHOD("GetLayout", "iias", "u(ia{sv}av)", &handler<&DBusMenu::getLayout>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetGroupProperties", "aias", "a(ia{sv})", &handler<&DBusMenu::getGroupProperties>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetProperty", "is", "v", &handler<&DBusMenu::getProperty>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Event", "isvu", "", &handler<&DBusMenu::event>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("EventGroup", "a(isvu)", "ai", &handler<&DBusMenu::eventGroup>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AboutToShow", "i", "b", &handler<&DBusMenu::aboutToShow>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AboutToShowGroup", "ai", "aiai", &handler<&DBusMenu::aboutToShowGroup>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("ItemsPropertiesUpdated", "a(ia{sv})a(ias)", 0),
    SD_BUS_SIGNAL("LayoutUpdated", "ui", 0),
    SD_BUS_SIGNAL("ItemActivationRequested", "iu", 0),
    SD_BUS_VTABLE_END,
};

DBusMenu::DBusMenu(DispatchQueue& givenQueue) : queue(givenQueue) {}

void DBusMenu::busConnected(sd_bus* connection) {
  bus = connection;
  sd_bus_slot* slot = nullptr;
  if (sd_bus_add_object_vtable(bus, &slot, objectPath, interfaceName, interface, this) >= 0)
    object.reset(slot);
}

void DBusMenu::busLost() {
  object.reset();
  bus = nullptr;
}

void DBusMenu::setMenu(Menu menu) {
  items = std::move(menu.items);
  rebuild();
}

void DBusMenu::setForm(const HostForm& changed) {
  form = changed;
  rebuild();
}

void DBusMenu::rebuild() {
  const MenuLayout before = std::exchange(rows, menuLayout(items, form));
  if (rows == before) return;
  ++revision;
  if (bus != nullptr) announce(before);
}

/// Tells the hosts what is new. Rows that come, go or move make them build their menu anew, which closes it.
/// Of rows that stay, some hosts do not read all properties again with the layout.
void DBusMenu::announce(const MenuLayout& before) {
  if (rows.children != before.children) {
    sd_bus_emit_signal(bus, objectPath, interfaceName, "LayoutUpdated", "ui", revision, MenuLayout::root);
  }
  std::map<int, MenuLayout::Properties> updated;
  std::map<int, std::vector<std::string>> removed;
  for (const auto& [id, properties] : rows.properties) {
    const auto known = before.properties.find(id);
    if (known == before.properties.end()) continue;
    const MenuLayout::Properties& previous = known->second;
    for (const auto& [name, value] : properties) {
      const auto was = previous.find(name);
      if (was == previous.end() || was->second != value) updated[id].emplace(name, value);
    }
    for (const auto& [name, value] : previous) {
      if (!properties.contains(name)) removed[id].push_back(name);
    }
  }

  if (updated.empty() && removed.empty()) return;
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_signal(bus, &raw, objectPath, interfaceName, "ItemsPropertiesUpdated") < 0) return;
  const BusMessage signal(raw);
  int result = sd_bus_message_open_container(raw, 'a', "(ia{sv})");
  for (const auto& [id, properties] : updated) {
    if (result >= 0) result = sd_bus_message_open_container(raw, 'r', "ia{sv}");
    if (result >= 0) result = sd_bus_message_append(raw, "i", id);
    if (result >= 0) result = appendProperties(raw, properties);
    if (result >= 0) result = sd_bus_message_close_container(raw);
  }
  if (result >= 0) result = sd_bus_message_close_container(raw);
  if (result >= 0) result = sd_bus_message_open_container(raw, 'a', "(ias)");
  for (const auto& [id, names] : removed) {
    if (result >= 0) result = sd_bus_message_open_container(raw, 'r', "ias");
    if (result >= 0) result = sd_bus_message_append(raw, "i", id);
    if (result >= 0) result = sd_bus_message_open_container(raw, 'a', "s");
    for (const auto& name : names) {
      if (result >= 0) result = sd_bus_message_append(raw, "s", name.c_str());
    }
    if (result >= 0) result = sd_bus_message_close_container(raw);
    if (result >= 0) result = sd_bus_message_close_container(raw);
  }
  if (result >= 0) result = sd_bus_message_close_container(raw);
  send(signal, result);
}

/// The row, with the rows below it down to `depth`; all of them if that is negative.
int DBusMenu::appendRow(sd_bus_message* message, int id, int depth, const PropertyFilter& filter) {
  int result = sd_bus_message_open_container(message, 'r', "ia{sv}av");
  if (result >= 0) result = sd_bus_message_append(message, "i", id);
  if (result >= 0) result = appendProperties(message, rows.properties.at(id), filter);
  if (result >= 0) result = sd_bus_message_open_container(message, 'a', "v");
  const auto below = rows.children.find(id);
  if (depth != 0 && below != rows.children.end()) {
    for (const int child : below->second) {
      if (result >= 0) result = sd_bus_message_open_container(message, 'v', "(ia{sv}av)");
      if (result >= 0) result = appendRow(message, child, depth < 0 ? depth : depth - 1, filter);
      if (result >= 0) result = sd_bus_message_close_container(message);
    }
  }
  if (result >= 0) result = sd_bus_message_close_container(message);
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int DBusMenu::getLayout(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t parent = 0;
  std::int32_t depth = 0;
  PropertyFilter filter;
  if (const int result = sd_bus_message_read(call, "ii", &parent, &depth); result < 0) return result;
  if (const int result = readFilter(call, filter); result < 0) return result;
  if (!hasRow(parent)) return unknownId(error, parent);

  const BusMessage reply = replyTo(call);
  if (!reply) return -ENOMEM;
  int result = sd_bus_message_append(reply.get(), "u", revision);
  if (result >= 0) result = appendRow(reply.get(), parent, depth, filter);
  return send(reply, result);
}

int DBusMenu::getGroupProperties(sd_bus_message* call, sd_bus_error*) {
  std::vector<int> ids;
  PropertyFilter filter;
  if (const int result = readIds(call, ids); result < 0) return result;
  if (const int result = readFilter(call, filter); result < 0) return result;
  if (ids.empty()) {
    for (const auto& [id, properties] : rows.properties) ids.push_back(id);
  }

  const BusMessage reply = replyTo(call);
  if (!reply) return -ENOMEM;
  int result = sd_bus_message_open_container(reply.get(), 'a', "(ia{sv})");
  // Each row once, however often it is named: the answer must not grow with the question.
  std::set<int> answered;
  for (const int id : ids) {
    const auto row = rows.properties.find(id);
    if (row == rows.properties.end() || !answered.insert(id).second) continue;
    if (result >= 0) result = sd_bus_message_open_container(reply.get(), 'r', "ia{sv}");
    if (result >= 0) result = sd_bus_message_append(reply.get(), "i", id);
    if (result >= 0) result = appendProperties(reply.get(), row->second, filter);
    if (result >= 0) result = sd_bus_message_close_container(reply.get());
  }
  if (result >= 0) result = sd_bus_message_close_container(reply.get());
  return send(reply, result);
}

int DBusMenu::getProperty(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t id = 0;
  const char* name = nullptr;
  if (const int result = sd_bus_message_read(call, "is", &id, &name); result < 0) return result;
  const auto row = rows.properties.find(id);
  if (row == rows.properties.end()) return unknownId(error, id);
  const auto property = row->second.find(name);
  if (property == row->second.end()) {
    return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "Item %d has no such property", id);
  }
  const BusMessage reply = replyTo(call);
  if (!reply) return -ENOMEM;
  return send(reply, appendValue(reply.get(), property->second));
}

bool DBusMenu::hasRow(int id) const {
  return rows.properties.contains(id);
}

/// What the row does is done later: the host waits for its answer.
void DBusMenu::choose(int id) {
  const auto item =
      std::find_if(items.begin(), items.end(), [id](const MenuItem& each) { return each.id == id; });
  if (item != items.end()) queue.async([chosen = *item] { performMenuItem(chosen); });
}

int DBusMenu::event(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t id = 0;
  const char* name = nullptr;
  if (const int result = sd_bus_message_read(call, "is", &id, &name); result < 0) return result;
  if (!hasRow(id)) return unknownId(error, id);
  if (isClick(name)) choose(id);
  return sd_bus_reply_method_return(call, "");
}

int DBusMenu::eventGroup(sd_bus_message* call, sd_bus_error* error) {
  // Each row once, however often it is named: neither what is to be done nor the answer must grow with that.
  std::set<int> chosen;
  IdSet unknown;
  bool anyKnown = false;
  int result = sd_bus_message_enter_container(call, 'a', "(isvu)");
  while (result >= 0 && (result = sd_bus_message_enter_container(call, 'r', "isvu")) > 0) {
    std::int32_t id = 0;
    const char* name = nullptr;
    result = sd_bus_message_read(call, "is", &id, &name);
    if (result >= 0) result = sd_bus_message_skip(call, "vu");
    if (result >= 0) result = sd_bus_message_exit_container(call);
    if (result < 0) break;
    if (!hasRow(id)) {
      unknown.insert(id);
      continue;
    }
    anyKnown = true;
    if (isClick(name) && chosen.insert(id).second) choose(id);
  }
  if (result < 0) return result;
  const std::vector<int>& ids = unknown.sorted();
  if (!anyKnown && !ids.empty()) return unknownId(error, ids.front());
  const BusMessage reply = replyTo(call);
  if (!reply) return -ENOMEM;
  return send(reply, sd_bus_message_append_array(reply.get(), 'i', ids.data(), ids.size() * sizeof(int)));
}

int DBusMenu::aboutToShow(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t id = 0;
  if (const int result = sd_bus_message_read(call, "i", &id); result < 0) return result;
  if (!hasRow(id)) return unknownId(error, id);
  return sd_bus_reply_method_return(call, "b", 0);
}

int DBusMenu::aboutToShowGroup(sd_bus_message* call, sd_bus_error* error) {
  std::vector<int> ids;
  if (const int result = readIds(call, ids); result < 0) return result;
  const std::size_t known = std::erase_if(ids, [this](int id) { return hasRow(id); });
  if (known == 0 && !ids.empty()) return unknownId(error, ids.front());
  const BusMessage reply = replyTo(call);
  if (!reply) return -ENOMEM;
  int result = sd_bus_message_append(reply.get(), "ai", 0);
  if (result >= 0)
    result = sd_bus_message_append_array(reply.get(), 'i', ids.data(), ids.size() * sizeof(int));
  return send(reply, result);
}

}  // namespace kestrune
