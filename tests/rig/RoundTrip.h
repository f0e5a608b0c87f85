#pragma once

#include <gtest/gtest.h>

#include <string>

#include "adapters/bus/SessionBus.h"
#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// The limit for operations that must not block. A blocking sd-bus call without an answer would take 25 s.
inline constexpr Seconds soon{5.0};

/// Listens to one of the program's bus connections. Counts how often the connection was made and lost.
class RoundTrip final : public BusClient {
 public:
  explicit RoundTrip(BusConnection& givenConnection) : BusClient(givenConnection) { connection.add(*this); }

  void busConnected() override { ++connections; }
  void busLost() override { ++losses; }

  /// Waits until the connection is open, and sends a call to the bus daemon over the connection. Returns
  /// whether the answer came in time. If it came, the answers to earlier calls to the daemon have come too,
  /// because the daemon answers the calls of a connection in order.
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
  void catchUp(EventLoop& loop) { EXPECT_TRUE(succeeds(loop)); }

  /// Returns the unique name of the connection, or "" while the connection is closed.
  std::string uniqueName() const {
    const char* name = nullptr;
    return bus != nullptr && sd_bus_get_unique_name(bus, &name) >= 0 ? name : "";
  }

  using BusClient::bus;
  int connections = 0;
  int losses = 0;
};

}  // namespace kestrune::testing
