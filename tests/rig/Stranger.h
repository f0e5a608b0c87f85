#pragma once

#include <systemd/sd-bus.h>

#include <stdexcept>
#include <string>

#include "tests/rig/PrivateBus.h"

namespace kestrune::testing {

/// A bus connection that sends signals. Tests use it to forge the signals of other programs and of the bus.
class Stranger {
 public:
  explicit Stranger(const PrivateBus& daemon, const char* name = nullptr) {
    const bool done = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, daemon.address().c_str()) >= 0 &&
                      sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
                      (name == nullptr || sd_bus_request_name(bus, name, 0) >= 0);
    if (!done) throw std::runtime_error("cannot connect to the bus");
  }
  ~Stranger() { sd_bus_flush_close_unref(bus); }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  /// Sends a signal to the connection with the unique name `receiver`, or to all connections if `receiver` is
  /// empty. Returns when the bus has delivered the signal.
  template <typename... Arguments>
  void tell(const std::string& receiver, const char* path, const char* interface, const char* member,
            const char* types, Arguments... arguments) {
    sd_bus_message* signal = nullptr;
    const bool done = sd_bus_message_new_signal(bus, &signal, path, interface, member) >= 0 &&
                      (receiver.empty() || sd_bus_message_set_destination(signal, receiver.c_str()) >= 0) &&
                      sd_bus_message_append(signal, types, arguments...) >= 0 &&
                      sd_bus_send(bus, signal, nullptr) >= 0 &&
                      sd_bus_call_method(bus, driver, driverPath, driver, "GetId", nullptr, nullptr, "") >= 0;
    sd_bus_message_unref(signal);
    if (!done) throw std::runtime_error("cannot send the signal");
  }

  /// Forges NameOwnerChanged, a signal that only the bus itself may send.
  void tellOfOwner(const std::string& receiver, const char* name, const char* before, const char* after) {
    tell(receiver, driverPath, driver, "NameOwnerChanged", "sss", name, before, after);
  }

 private:
  static constexpr auto driver = "org.freedesktop.DBus";
  static constexpr auto driverPath = "/org/freedesktop/DBus";

  sd_bus* bus = nullptr;
};

}  // namespace kestrune::testing
