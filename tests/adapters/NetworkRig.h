#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "adapters/loop/EventLoop.h"
#include "adapters/network/NetworkMonitor.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/NetworkNamespace.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/SignalState.h"

namespace kestrune {

inline void PrintTo(const NetworkPath& path, std::ostream* out) {
  *out << (path.satisfied ? "connected" : "disconnected") << (path.usesWiFi ? " Wi-Fi" : "")
       << (path.usesWiredEthernet ? " wired" : "") << (path.usesCellular ? " cellular" : "");
}

}  // namespace kestrune

namespace kestrune::testing {

inline constexpr NetworkPath disconnected{};
inline constexpr NetworkPath viaWiFi{.satisfied = true, .usesWiFi = true};
inline constexpr NetworkPath viaCable{.satisfied = true, .usesWiredEthernet = true};
inline constexpr NetworkPath viaSomething{.satisfied = true};

/// A network namespace with a cable and Wi-Fi. Both have a carrier and an IPv4 address, but no default route.
/// `monitor` has the timing `atOnce`, so it reports every change without delay.
struct NetworkRig {
  NetworkRig() {
    // Switch IPv6 off. Otherwise its netlink messages would wake the monitor too, and no test would notice if
    // the monitor missed an IPv4 message.
    setIPv6("default/addr_gen_mode", 1);  // no link-local addresses
    setIPv6("all/disable_ipv6", 1);
    setIPv6("default/disable_ipv6", 1);
    network.ip({"link set lo up"});
    addCable("cable", "10.1.0.2/24");
    addCable("wifi", "10.2.0.2/24");
    pretend("wifi", "DEVTYPE=wlan\n");
  }

  /// Adds an Ethernet cable: a veth pair. One end is the device `name` with `address`, the other NAME-peer.
  void addCable(const std::string& name, const std::string& address) const {
    network.ip({"link add " + name + " type veth peer name " + name + "-peer",
                "link set " + name + "-peer up", "link set " + name + " up",
                "address add " + address + " dev " + name});
  }

  void useIPv6() const {
    setIPv6("all/disable_ipv6", 0);
    network.ip({"address add fd00:1::2/64 dev cable nodad", "address add fd00:2::2/64 dev wifi nodad"});
  }

  static void setIPv6(const std::string& setting, int value) {
    std::ofstream("/proc/sys/net/ipv6/conf/" + setting) << value << std::flush;
  }

  /// Writes the uevent file of `device` in the fake /sys/class/net.
  void pretend(const std::string& device, const std::string& uevent) const {
    std::filesystem::create_directories(devices.file(device));
    std::ofstream(devices.file(device + "/uevent")) << uevent;
  }

  SignalState signals;
  NetworkNamespace network;
  ScratchFolder devices;
  SystemClock clock;
  EventLoop loop;
  SystemBus bus{loop};
  static constexpr PathTiming atOnce{.burst = Seconds{0}, .loss = Seconds{0}, .memory = Seconds{0}};
  std::optional<NetworkMonitor> monitor{std::in_place, loop, clock, bus, devices.file(""), atOnce};
};

struct MonitoredNetwork : NetworkRig {
  void start() {
    monitor->start(loop.mainQueue(), [this](NetworkPath path) { updates.push_back(path); });
  }

  /// Waits until the last update is `path`; fails at the time limit.
  ::testing::AssertionResult becomes(const NetworkPath& path) {
    if (comesTrue(loop, [&] { return !updates.empty() && updates.back() == path; }))
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << ::testing::PrintToString(updates);
  }

  void startOn(const NetworkPath& path) {
    start();
    ASSERT_TRUE(becomes(path));
    updates.clear();
  }

  std::vector<NetworkPath> updates;
};

}  // namespace kestrune::testing
