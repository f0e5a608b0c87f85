#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/RouteMonitor.h"
#include "platform/linux/SystemClock.h"
#include "tests/support/ComesTrue.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/ScratchFolder.h"
#include "tests/support/SignalState.h"

namespace kestrune::testing {

inline constexpr NetworkPath disconnected{};
inline constexpr NetworkPath viaWiFi{.satisfied = true, .usesWiFi = true};
inline constexpr NetworkPath viaCable{.satisfied = true, .usesWiredEthernet = true};
inline constexpr NetworkPath viaCellular{.satisfied = true, .usesCellular = true};
inline constexpr NetworkPath viaSomething{.satisfied = true};

}  // namespace kestrune::testing

namespace kestrune {

inline void PrintTo(const NetworkPath& path, std::ostream* out) {
  *out << (path.satisfied ? "connected" : "disconnected") << (path.usesWiFi ? " Wi-Fi" : "")
       << (path.usesWiredEthernet ? " wired" : "") << (path.usesCellular ? " cellular" : "");
}

}  // namespace kestrune

namespace kestrune::testing {

/// A network of its own, whose monitor writes down what it reports.
struct RouteMonitorNetwork : ::testing::Test {
  struct Update {
    NetworkPath path;
    Seconds when;
  };

  RouteMonitorNetwork() { network.ip("link set lo up"); }

  void start() {
    monitor->start(*queue, [this](NetworkPath path) { updates.push_back({path, clock.awakeTime()}); });
  }

  /// Starts and waits for the first update.
  void startOn(const NetworkPath& path) {
    start();
    ASSERT_TRUE(comesTrue(loop, [this] { return !updates.empty(); }));
    EXPECT_EQ(updates.front().path, path);
    updates.clear();
  }

  /// Whether the next update says `path`.
  ::testing::AssertionResult reports(const NetworkPath& path) {
    if (!comesTrue(loop, [this] { return !updates.empty(); }))
      return ::testing::AssertionFailure() << "silence";
    const Update update = updates.front();
    updates.erase(updates.begin());
    lastReport = update.when;
    if (update.path == path) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << ::testing::PrintToString(update.path);
  }

  /// How long it took from `ip` with these words to the update, which says `path`.
  Seconds timeUntil(const NetworkPath& path, const std::string& words) {
    const Seconds begin = clock.awakeTime();
    network.ip(words);
    lastChange = clock.awakeTime();
    EXPECT_TRUE(reports(path)) << words;
    return lastReport - begin;
  }
  /// Whether the update came sooner after the end of that command than a loss is reported.
  bool wasSoon() const { return lastReport - lastChange < PathReports::lossDelay; }

  /// Makes the kernel's folder of devices say that `device` is such a one.
  void pretend(const std::string& device, const std::string& uevent, const std::string& subfolder = {}) {
    std::filesystem::create_directories(devices.file(device + "/" + subfolder));
    std::ofstream(devices.file(device + "/uevent")) << uevent;
  }
  void pretendWiFi(const std::string& device) { pretend(device, "DEVTYPE=wlan\n", "phy80211"); }

  SignalState signals;
  NetworkNamespace network;
  ScratchFolder devices;
  SystemClock clock;
  EventLoop loop;
  SystemBus bus{loop};
  std::unique_ptr<DispatchQueue> queue =
      loop.makeSerialQueue("monitor", QualityOfService::standard, QueueTarget::mainThread);
  RouteMonitors monitors{loop, clock, bus, devices.file("")};
  std::unique_ptr<PathMonitor> monitor = monitors.makePathMonitor();
  std::vector<Update> updates;
  Seconds lastChange{};
  Seconds lastReport{};
};

}  // namespace kestrune::testing
