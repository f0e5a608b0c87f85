#include "adapters/tray/DBusMenu.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <utility>

#include "text/Text.h"

namespace kestrune {

namespace {

constexpr auto interfaceName = "com.canonical.dbusmenu";
constexpr int rootId = 0;
constexpr std::uint32_t protocolVersion = 3;
constexpr std::array<std::string_view, 7> propertyNames{
    "children-display", "enabled", "label", "shortcut", "toggle-state", "toggle-type", "type"};

/// The row as a host shows it: an underscore alone would mark the letter behind it for the keyboard.
std::string label(const std::string& title) {
  return replacingAll(displayRow(title), "_", "__");
}

/// A letter with Command becomes the letter with Control; an upper-case one has Shift, too.
std::vector<std::string> shortcut(const std::string& keyEquivalent) {
  if (keyEquivalent.empty()) return {};
  std::vector<std::string> keys{"Control"};
  const auto letter = static_cast<unsigned char>(keyEquivalent.front());
  if (std::isupper(letter)) keys.emplace_back("Shift");
  keys.push_back(keyEquivalent == "," ? "comma" : std::string(1, static_cast<char>(std::tolower(letter))));
  return keys;
}

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

int readIds(sd_bus_message* call, std::vector<int>& ids) {
  const void* data = nullptr;
  std::size_t size = 0;
  if (const int result = sd_bus_message_read_array(call, 'i', &data, &size); result < 0) return result;
  ids.resize(size / sizeof(std::int32_t));
  if (!ids.empty()) std::memcpy(ids.data(), data, size);
  return 0;
}

/// A message under construction, let go when this goes.
struct MessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;

Message replyTo(sd_bus_message* call) {
  sd_bus_message* reply = nullptr;
  sd_bus_message_new_method_return(call, &reply);
  return Message(reply);
}

int send(const Message& message, int result) {
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
  const std::vector<int> before = std::move(order);
  const std::map<int, Properties> old = std::move(exported);
  order.clear();
  exported.clear();
  items.clear();
  for (auto& item : menu.items) {
    order.push_back(item.id);
    exported.emplace(item.id, propertiesOf(item));
    items.insert_or_assign(item.id, std::move(item));
  }
  if (order == before && exported == old) return;
  ++revision;
  if (bus != nullptr) announce(before, old);
}

/// Tells the hosts what is new. Rows that come, go or move make them build their menu anew, which closes it.
void DBusMenu::announce(const std::vector<int>& before, const std::map<int, Properties>& old) {
  if (order != before) {
    sd_bus_emit_signal(bus, objectPath, interfaceName, "LayoutUpdated", "ui", revision, rootId);
    return;
  }
  std::map<int, Properties> updated;
  std::map<int, std::vector<std::string>> removed;
  for (const auto& [id, properties] : exported) {
    const Properties& previous = old.at(id);
    for (const auto& [name, value] : properties) {
      const auto was = previous.find(name);
      if (was == previous.end() || was->second != value) updated[id].emplace(name, value);
    }
    for (const auto& [name, value] : previous) {
      if (!properties.contains(name)) removed[id].push_back(name);
    }
  }

  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_signal(bus, &raw, objectPath, interfaceName, "ItemsPropertiesUpdated") < 0) return;
  const Message signal(raw);
  int result = sd_bus_message_open_container(raw, 'a', "(ia{sv})");
  for (const auto& [id, properties] : updated) {
    if (result >= 0) result = sd_bus_message_open_container(raw, 'r', "ia{sv}");
    if (result >= 0) result = sd_bus_message_append(raw, "i", id);
    if (result >= 0) result = appendProperties(raw, properties, {});
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

DBusMenu::Properties DBusMenu::propertiesOf(const MenuItem& item) {
  if (item.isSeparator) return {{"type", std::string("separator")}};
  Properties properties{{"label", label(item.title)}, {"enabled", item.enabled}};
  if (item.checked) {
    properties["toggle-type"] = std::string("checkmark");
    properties["toggle-state"] = std::int32_t{*item.checked ? 1 : 0};
  }
  if (auto keys = shortcut(item.keyEquivalent); !keys.empty()) properties["shortcut"] = std::move(keys);
  return properties;
}

/// Keeps no more of a question than matters for the answer, however long it is.
int DBusMenu::readFilter(sd_bus_message* call, Filter& filter) {
  int result = sd_bus_message_enter_container(call, 'a', "s");
  for (const char* name = nullptr; result >= 0 && (result = sd_bus_message_read(call, "s", &name)) > 0;) {
    filter.everything = false;
    const auto known = std::find(propertyNames.begin(), propertyNames.end(), name);
    if (known != propertyNames.end()) filter.names.insert(*known);
  }
  return result < 0 ? result : sd_bus_message_exit_container(call);
}

int DBusMenu::appendValue(sd_bus_message* message, const Value& value) {
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
  const auto& keys = std::get<Shortcut>(value);
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

int DBusMenu::appendProperties(sd_bus_message* message, const Properties& properties, const Filter& filter) {
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

/// A row without rows below it.
int DBusMenu::appendRow(sd_bus_message* message, int id, const Properties& properties, const Filter& filter) {
  int result = sd_bus_message_open_container(message, 'r', "ia{sv}av");
  if (result >= 0) result = sd_bus_message_append(message, "i", id);
  if (result >= 0) result = appendProperties(message, properties, filter);
  if (result >= 0) result = sd_bus_message_append(message, "av", 0);
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int DBusMenu::getLayout(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t parent = 0;
  std::int32_t depth = 0;
  Filter filter;
  if (const int result = sd_bus_message_read(call, "ii", &parent, &depth); result < 0) return result;
  if (const int result = readFilter(call, filter); result < 0) return result;
  if (parent != rootId && !exported.contains(parent)) return unknownId(error, parent);

  const Message reply = replyTo(call);
  if (!reply) return -ENOMEM;
  int result = sd_bus_message_append(reply.get(), "u", revision);
  if (result < 0) return result;
  if (parent != rootId) return send(reply, appendRow(reply.get(), parent, exported.at(parent), filter));

  const Properties root{{"children-display", std::string("submenu")}};
  result = sd_bus_message_open_container(reply.get(), 'r', "ia{sv}av");
  if (result >= 0) result = sd_bus_message_append(reply.get(), "i", rootId);
  if (result >= 0) result = appendProperties(reply.get(), root, filter);
  if (result >= 0) result = sd_bus_message_open_container(reply.get(), 'a', "v");
  for (const int id : depth == 0 ? std::vector<int>() : order) {
    if (result >= 0) result = sd_bus_message_open_container(reply.get(), 'v', "(ia{sv}av)");
    if (result >= 0) result = appendRow(reply.get(), id, exported.at(id), filter);
    if (result >= 0) result = sd_bus_message_close_container(reply.get());
  }
  if (result >= 0) result = sd_bus_message_close_container(reply.get());
  if (result >= 0) result = sd_bus_message_close_container(reply.get());
  return send(reply, result);
}

int DBusMenu::getGroupProperties(sd_bus_message* call, sd_bus_error*) {
  std::vector<int> ids;
  Filter filter;
  if (const int result = readIds(call, ids); result < 0) return result;
  if (const int result = readFilter(call, filter); result < 0) return result;
  if (ids.empty()) ids = order;

  const Message reply = replyTo(call);
  if (!reply) return -ENOMEM;
  int result = sd_bus_message_open_container(reply.get(), 'a', "(ia{sv})");
  // Each row once, however often it is named: the answer must not grow with the question.
  std::set<int> answered;
  for (const int id : ids) {
    const auto row = exported.find(id);
    if (row == exported.end() || !answered.insert(id).second) continue;
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
  const auto row = exported.find(id);
  if (row == exported.end()) return unknownId(error, id);
  const auto property = row->second.find(name);
  if (property == row->second.end()) {
    return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "Item %d has no such property", id);
  }
  const Message reply = replyTo(call);
  if (!reply) return -ENOMEM;
  return send(reply, appendValue(reply.get(), property->second));
}

bool DBusMenu::hasRow(int id) const {
  return id == rootId || items.contains(id);
}

/// What the row does is done later: the host waits for its answer.
void DBusMenu::choose(int id) {
  const auto item = items.find(id);
  if (item != items.end()) queue.async([chosen = item->second] { performMenuItem(chosen); });
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
  const Message reply = replyTo(call);
  if (!reply) return -ENOMEM;
  return send(reply, sd_bus_message_append_array(reply.get(), 'i', ids.data(), ids.size() * sizeof(int)));
}

int DBusMenu::aboutToShow(sd_bus_message* call, sd_bus_error* error) {
  std::int32_t id = 0;
  if (const int result = sd_bus_message_read(call, "i", &id); result < 0) return result;
  if (id != rootId && !exported.contains(id)) return unknownId(error, id);
  return sd_bus_reply_method_return(call, "b", 0);
}

int DBusMenu::aboutToShowGroup(sd_bus_message* call, sd_bus_error* error) {
  std::vector<int> ids;
  if (const int result = readIds(call, ids); result < 0) return result;
  const std::size_t known =
      std::erase_if(ids, [this](int id) { return id == rootId || exported.contains(id); });
  if (known == 0 && !ids.empty()) return unknownId(error, ids.front());
  const Message reply = replyTo(call);
  if (!reply) return -ENOMEM;
  int result = sd_bus_message_append(reply.get(), "ai", 0);
  if (result >= 0)
    result = sd_bus_message_append_array(reply.get(), 'i', ids.data(), ids.size() * sizeof(int));
  return send(reply, result);
}

}  // namespace kestrune
