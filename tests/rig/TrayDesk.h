#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/StatusNotifierItem.h"
#include "tests/rig/BusText.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/RoundTrip.h"

namespace kestrune::testing {

/// A fake tray (StatusNotifierWatcher and host): reads an item, clicks on it, and records its signals.
class TrayHost {
 public:
  static constexpr auto itemPath = "/StatusNotifierItem";
  static constexpr auto itemInterface = "org.kde.StatusNotifierItem";
  static constexpr auto menuPath = "/MenuBar";
  static constexpr auto menuInterface = "com.canonical.dbusmenu";

  /// `error`: the name of the error with which the tray refuses registrations; if it is empty, the tray
  /// accepts them. `names`: bus names that the tray owns in addition to the watcher's name.
  explicit TrayHost(EventLoop& givenLoop, std::string error = {}, const std::vector<const char*>& names = {})
      : loop(givenLoop), refusal(std::move(error)) {
    sd_bus_slot* slot = nullptr;
    must(sd_bus_open_user(&bus), "connect");
    must(sd_bus_attach_event(bus, loop.event(), SD_EVENT_PRIORITY_NORMAL), "attach");
    must(sd_bus_add_object_vtable(bus, &slot, watcherPath, watcherName, interface, this), "export");
    object.reset(slot);
    for (const char* const path : {itemPath, menuPath}) {
      must(sd_bus_match_signal(bus, &slot, nullptr, path, nullptr, nullptr, &signalled, this), "listen");
      matches.emplace_back(slot);
    }
    for (const char* const name : names) own(name);
    own(watcherName);
  }

  ~TrayHost() {
    matches.clear();
    object.reset();
    if (bus != nullptr) sd_bus_detach_event(bus);
    sd_bus_close_unref(bus);
  }
  TrayHost(const TrayHost&) = delete;
  TrayHost& operator=(const TrayHost&) = delete;

  std::vector<std::string> registrations;  ///< the argument of each registration
  std::vector<std::string> signals;        ///< "Name" or "Name arguments" of each signal

  bool hasItem() {
    return comesTrue(loop, [this] { return !registrations.empty(); });
  }

  /// Calls a method of the item that registered last. Waits for the answer and returns it.
  template <typename... Arguments>
  BusMessage call(const char* path, const char* callInterface, const char* member, const char* types,
                  Arguments... arguments) {
    BusMessage answer;
    const BusSlot pending = send(answer, path, callInterface, member, types, arguments...);
    EXPECT_TRUE(comesTrue(loop, [&answer] { return answer != nullptr; })) << member;
    return answer;
  }
  /// Like `call`, but does not wait. `answer` gets the answer, if it comes while the slot exists.
  template <typename... Arguments>
  BusSlot send(BusMessage& answer, const char* path, const char* callInterface, const char* member,
               const char* types, Arguments... arguments) {
    sd_bus_slot* slot = nullptr;
    must(sd_bus_call_method_async(bus, &slot, item.c_str(), path, callInterface, member, &answered, &answer,
                                  types, arguments...),
         member);
    return BusSlot(slot);
  }
  template <typename... Arguments>
  std::string menu(const char* member, const char* types, Arguments... arguments) {
    return textOf(call(menuPath, menuInterface, member, types, arguments...));
  }
  /// Returns the revision and the whole menu.
  std::string layout() { return menu("GetLayout", "iias", 0, -1, 0); }
  std::string clicked(int id) { return menu("Event", "isvu", id, "clicked", "i", 0, 0u); }
  std::string property(const char* name) {
    return textOf(call(itemPath, "org.freedesktop.DBus.Properties", "Get", "ss", itemInterface, name));
  }

  /// Waits until all signals that the item has sent so far have arrived. The answer to Ping comes after them.
  void catchUp() { call(itemPath, "org.freedesktop.DBus.Peer", "Ping", ""); }

  /// Waits until all signals that the item has sent have arrived. Returns the signals since the last news().
  std::vector<std::string> news() {
    catchUp();
    return std::exchange(signals, {});
  }

  /// Emits StatusNotifierHostRegistered, the signal of a tray that has just started.
  void announceHost() {
    must(sd_bus_emit_signal(bus, watcherPath, watcherName, "StatusNotifierHostRegistered", ""), "announce");
  }

  void own(const char* name) { must(sd_bus_request_name(bus, name, 0), name); }
  void disown(const char* name) { must(sd_bus_release_name(bus, name), name); }

  sd_bus* connection() const { return bus; }
  const std::string& itemName() const { return item; }

 private:
  static constexpr auto watcherName = "org.kde.StatusNotifierWatcher";
  static constexpr auto watcherPath = "/StatusNotifierWatcher";

  static int registerItem(sd_bus_message* call, void* data, sd_bus_error* error) {
    auto& self = *static_cast<TrayHost*>(data);
    const char* service = nullptr;
    must(sd_bus_message_read(call, "s", &service), "read");
    self.registrations.emplace_back(service);
    self.item = sd_bus_message_get_sender(call);
    if (!self.refusal.empty()) return sd_bus_error_set(error, self.refusal.c_str(), "not today");
    return sd_bus_reply_method_return(call, "");
  }

  static int signalled(sd_bus_message* signal, void* data, sd_bus_error*) {
    const bool fromItem = sd_bus_message_get_path(signal) == std::string_view(itemPath);
    // Ignore signals of other interfaces, because a real host does not listen to them.
    if (!sd_bus_message_is_signal(signal, fromItem ? itemInterface : menuInterface, nullptr)) return 0;
    const std::string arguments = textOf(BusMessage(sd_bus_message_ref(signal)));
    static_cast<TrayHost*>(data)->signals.push_back(sd_bus_message_get_member(signal) +
                                                    (arguments.empty() ? "" : " " + arguments));
    return 0;
  }

  static int answered(sd_bus_message* reply, void* data, sd_bus_error*) {
    static_cast<BusMessage*>(data)->reset(sd_bus_message_ref(reply));
    return 0;
  }

  static inline const sd_bus_vtable interface[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("RegisterStatusNotifierItem", "s", "", &TrayHost::registerItem,
                    SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_SIGNAL("StatusNotifierHostRegistered", "", 0),
      SD_BUS_VTABLE_END,
  };

  EventLoop& loop;
  const std::string refusal;
  sd_bus* bus = nullptr;
  BusSlot object;
  std::vector<BusSlot> matches;
  std::string item;
};

/// The program's tray item on a desktop. Neither the bus nor the tray runs yet: the test starts them.
struct EmptyDesk : ::testing::Test {
  void showTray(std::string error = {}, const std::vector<const char*>& names = {}) {
    host.reset();
    host = std::make_unique<TrayHost>(loop, std::move(error), names);
  }

  PrivateBus daemon;
  EventLoop loop;
  SessionBus bus{loop};
  RoundTrip probe{bus};
  FakeMainBundle bundle;
  std::string lastToken;
  int clicks = 0;
  int registrations = 0;  ///< how many registrations the tray has confirmed
  std::optional<StatusNotifierItem> item{
      TrayParts{.bus = bus,
                .queue = loop.mainQueue(),
                .bundle = bundle,
                .onClick = [this] { ++clicks; },
                .onToken = [this](std::string_view token) { lastToken = token; },
                .onRegistered = [this] { ++registrations; }}};
  std::unique_ptr<TrayHost> host;
};

/// An EmptyDesk on which the bus and the tray are running when the test begins.
struct TrayDesk : EmptyDesk {
  void SetUp() override {
    daemon.start();
    showTray();
    bus.connect();
    item->addToStatusBar(StatusItem::squareLength);
    ASSERT_TRUE(host->hasItem());
  }
};

}  // namespace kestrune::testing
