#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <string>

#include "tests/support/ComesTrue.h"

namespace kestrune::testing {

/// Who owns a name on the user's bus, and who waits for it, seen from a connection of its own.
class NameOnBus {
 public:
  explicit NameOnBus(std::string givenName) : name(std::move(givenName)) {
    sd_bus_open_user(&bus);
    // Whatever changes wakes the one that waits.
    sd_bus_match_signal(bus, nullptr, driver, path, driver, "NameOwnerChanged", nullptr, nullptr);
  }
  ~NameOnBus() { sd_bus_flush_close_unref(bus); }
  NameOnBus(const NameOnBus&) = delete;
  NameOnBus& operator=(const NameOnBus&) = delete;

  /// The process that owns the name, as soon as there is one; 0 when nobody takes it.
  int owner() {
    unsigned process = 0;
    await([&] {
      sd_bus_message* reply = nullptr;
      if (sd_bus_call_method(bus, driver, path, driver, "GetConnectionUnixProcessID", nullptr, &reply, "s",
                             name.c_str()) < 0) {
        return false;
      }
      sd_bus_message_read(reply, "u", &process);
      sd_bus_message_unref(reply);
      return true;
    });
    return static_cast<int>(process);
  }

  /// Whether, sooner or later, so many own it or wait for it.
  bool isWantedBy(int count) {
    return await([&] {
      sd_bus_message* reply = nullptr;
      const char* connection = nullptr;
      int found = 0;
      if (sd_bus_call_method(bus, driver, path, driver, "ListQueuedOwners", nullptr, &reply, "s",
                             name.c_str()) < 0) {
        return false;
      }
      sd_bus_message_enter_container(reply, 'a', "s");
      for (; sd_bus_message_read(reply, "s", &connection) > 0; ++found) last = connection;
      sd_bus_message_unref(reply);
      return found == count;
    });
  }

  /// The connection that has waited for the shortest time, as it was then.
  const std::string& lastToWant() const { return last; }

 private:
  static constexpr auto driver = "org.freedesktop.DBus";
  static constexpr auto path = "/org/freedesktop/DBus";

  bool await(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      while (sd_bus_process(bus, nullptr) > 0) {
      }
      sd_bus_wait(bus, 5000);  // microseconds: not everything is told
    }
    return true;
  }

  const std::string name;
  std::string last;
  sd_bus* bus = nullptr;
};

}  // namespace kestrune::testing
