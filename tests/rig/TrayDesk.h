#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/StatusNotifierItem.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/RoundTrip.h"
#include "tests/rig/TrayHost.h"

namespace kestrune::testing {

/// A desktop with the program's item, whose bus and tray the test starts.
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

/// The same, with bus and tray running.
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
