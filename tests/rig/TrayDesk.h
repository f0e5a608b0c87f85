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

/// The program's tray item on a desktop. The test starts the bus and the tray when it needs them.
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
  Menu lastMenu;
  int clicks = 0;
  int registrations = 0;  ///< how many registrations the tray has confirmed
  TrayStatusBar bar{{.bus = bus,
                     .queue = loop.mainQueue(),
                     .bundle = bundle,
                     .onClick = [this] { ++clicks; },
                     .onToken = [this](std::string_view token) { lastToken = token; },
                     .onMenu = [this](const Menu& menu) { lastMenu = menu; },
                     .onRegistered = [this] { ++registrations; }}};
  std::unique_ptr<StatusItem> item;
  std::unique_ptr<TrayHost> host;
};

/// An EmptyDesk on which the bus and the tray are running when the test begins.
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
