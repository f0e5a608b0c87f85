#pragma once

#include <string>

#include "adapters/bus/SessionBus.h"
#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// Sends something over a connection of the program's and waits until it is back: whatever was sent there
/// before has been answered by then, and the answers have been seen.
class RoundTrip final : public BusClient {
 public:
  explicit RoundTrip(BusConnection& givenConnection) : connection(givenConnection) { connection.add(*this); }
  ~RoundTrip() override { connection.remove(*this); }
  RoundTrip(const RoundTrip&) = delete;
  RoundTrip& operator=(const RoundTrip&) = delete;

  bool succeeds(EventLoop& loop) {
    if (!comesTrue(loop, [this] { return bus != nullptr; })) return false;
    bool done = false;
    sd_bus_slot* slot = nullptr;
    sd_bus_call_method_async(
        bus, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
        [](sd_bus_message*, void* flag, sd_bus_error*) {
          *static_cast<bool*>(flag) = true;
          return 0;
        },
        &done, "");
    const BusSlot pending(slot);
    return comesTrue(loop, [&done] { return done; });
  }

  /// The unique name of the connection, once it has answered.
  std::string uniqueName() const {
    const char* name = nullptr;
    return bus != nullptr && sd_bus_get_unique_name(bus, &name) >= 0 ? name : "";
  }

  void busConnected(sd_bus* connected) override {
    bus = connected;
    ++connections;
  }
  void busLost() override { bus = nullptr; }

  int connections = 0;

 private:
  BusConnection& connection;
  sd_bus* bus = nullptr;
};

}  // namespace kestrune::testing
