#pragma once

#include <gtest/gtest.h>

#include <string>

#include "adapters/bus/SessionBus.h"
#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// Listens to one of the program's bus connections. Counts how often the connection was made and lost.
class BusProbe : public BusClient {
 public:
  void busConnected(sd_bus* connected) override {
    bus = connected;
    ++connections;
  }
  void busLost() override {
    bus = nullptr;
    ++losses;
  }

  /// Waits until the connection is open, and calls the bus over it. Returns false if no answer comes in time.
  /// When it returns true, the program has received the answers to all its earlier calls.
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

  sd_bus* bus = nullptr;
  int connections = 0;
  int losses = 0;
};

/// A BusProbe that listens to a connection from its construction to its destruction.
class RoundTrip final : public BusProbe {
 public:
  explicit RoundTrip(BusConnection& givenConnection) : connection(givenConnection) { connection.add(*this); }
  ~RoundTrip() override { connection.remove(*this); }
  RoundTrip(const RoundTrip&) = delete;
  RoundTrip& operator=(const RoundTrip&) = delete;

  /// Returns the unique name of the connection, or "" while it is not connected.
  std::string uniqueName() const {
    const char* name = nullptr;
    return bus != nullptr && sd_bus_get_unique_name(bus, &name) >= 0 ? name : "";
  }

 private:
  BusConnection& connection;
};

}  // namespace kestrune::testing
