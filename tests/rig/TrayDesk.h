#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/StatusNotifierItem.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/TrayHost.h"

namespace kestrune::testing {

/// Watches a connection of the program's from inside.
class BusProbe final : public BusClient {
 public:
  void busConnected(sd_bus* connected) override {
    bus = connected;
    ++connections;
  }
  void busLost() override {
    bus = nullptr;
    ++losses;
  }

  /// Returns when the bus has answered everything that was sent before.
  void catchUp(EventLoop& loop) const {
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
    EXPECT_TRUE(comesTrue(loop, [&done] { return done; }));
  }

  sd_bus* bus = nullptr;
  int connections = 0;
  int losses = 0;
};

/// A desktop whose bus and tray come and go as a test wants it, with the program's item on it.
struct EmptyDesk : ::testing::Test {
  EmptyDesk() { bus.add(probe); }
  ~EmptyDesk() override { bus.remove(probe); }

  void showTray(std::string error = {}, const std::vector<const char*>& names = {}) {
    host.reset();
    host = std::make_unique<TrayHost>(loop, std::move(error), names);
  }

  PrivateBus daemon;
  EventLoop loop;
  SessionBus bus{loop};
  BusProbe probe;
  FakeMainBundle bundle;
  ActivationToken token;
  Menu lastMenu;
  int clicks = 0;
  int registrations = 0;  ///< that the tray confirmed
  TrayStatusBar bar{{.bus = bus,
                     .queue = loop.mainQueue(),
                     .bundle = bundle,
                     .token = token,
                     .onClick = [this] { ++clicks; },
                     .onMenu = [this](const Menu& menu) { lastMenu = menu; },
                     .onRegistered = [this] { ++registrations; }}};
  std::unique_ptr<StatusItem> item;
  std::unique_ptr<TrayHost> host;
};

/// The same with everything there.
struct TrayDesk : EmptyDesk {
  void SetUp() override {
    daemon.start();
    showTray();
    bus.connect();
    item = bar.statusItem(squareStatusItemLength);
    ASSERT_TRUE(host->hasItem());
  }
};

}  // namespace kestrune::testing
