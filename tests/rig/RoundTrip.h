#pragma once

#include <gtest/gtest.h>

#include <string>

#include "adapters/bus/SessionBus.h"
#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// A client of one of the program's connections. Counts what it is told.
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

  /// Calls the bus over the connection; false if no answer comes in time. By then the program has seen the
  /// answers to everything that it sent before.
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

/// The same, added to a connection for as long as this lives.
class RoundTrip final : public BusProbe {
 public:
  explicit RoundTrip(BusConnection& givenConnection) : connection(givenConnection) { connection.add(*this); }
  ~RoundTrip() override { connection.remove(*this); }
  RoundTrip(const RoundTrip&) = delete;
  RoundTrip& operator=(const RoundTrip&) = delete;

  /// The unique name of the connection, once it has answered.
  std::string uniqueName() const {
    const char* name = nullptr;
    return bus != nullptr && sd_bus_get_unique_name(bus, &name) >= 0 ? name : "";
  }

 private:
  BusConnection& connection;
};

}  // namespace kestrune::testing
