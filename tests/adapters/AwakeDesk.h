#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "adapters/awake/Inhibitors.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/RoundTrip.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/StubService.h"
#include "tests/rig/VirtualTime.h"

namespace kestrune::testing {

inline constexpr auto managerName = "org.gnome.SessionManager";
inline constexpr auto saverName = "org.freedesktop.ScreenSaver";
inline constexpr auto powerName = "org.freedesktop.PowerManagement";
inline constexpr auto loginName = "org.freedesktop.login1";

inline constexpr auto reason = "to be reached";
inline constexpr int on = powerAssertionLevelOn;
inline constexpr auto display = PowerAssertionType::noDisplaySleep;
inline constexpr auto system = PowerAssertionType::preventUserIdleSystemSleep;

inline constexpr Seconds patienceWithAService{0.25};

/// The number of D-Bus calls with a timeout of 250 ms. InhibitorsTest.cpp replaces sd_bus_call to count them.
inline int quarterSeconds = 0;
/// True while a test calls a service that does not answer. While this is false, InhibitorsTest.cpp replaces
/// the timeout of 250 ms by a longer one, because on a slow machine a service may need more time to answer.
inline bool nobodyAnswers = false;

inline const std::string managerCall =
    std::string("/org/gnome/SessionManager Inhibit 'com.dovrel.kestrune.menuclient', 0, '") + reason + "', 8";
inline const std::string saverCall =
    std::string("/org/freedesktop/ScreenSaver Inhibit 'Kestrune', '") + reason + "'";
inline const std::string otherSaverCall = std::string("/ScreenSaver Inhibit 'Kestrune', '") + reason + "'";
inline const std::string powerCall =
    std::string("/org/freedesktop/PowerManagement/Inhibit Inhibit 'Kestrune', '") + reason + "'";
inline const std::string loginCall =
    std::string("/org/freedesktop/login1 Inhibit 'idle', 'Kestrune', '") + reason + "', 'block'";

using Calls = std::vector<std::string>;

/// A fixture with a private session bus and a private system bus. At first, no bus and no service runs: each
/// test starts what it needs.
struct AwakeDesk : ::testing::Test {
  AwakeDesk() { quarterSeconds = 0; }

  SignalState restored;
  // Each PrivateBus sets DBUS_SESSION_BUS_ADDRESS, so `sessionDaemon` must come after `systemDaemon`.
  PrivateBus systemDaemon;
  ScopedVariable systemAddress{"DBUS_SYSTEM_BUS_ADDRESS", systemDaemon.address()};
  PrivateBus sessionDaemon;
  EventLoop loop;
  VirtualClock clock;
  SessionBus sessionBus{loop};
  SystemBus systemBus{loop};
  StubLocks locks;
  std::unique_ptr<StubService> manager, saver, power, login;
  std::unique_ptr<Inhibitors> inhibitors = std::make_unique<Inhibitors>(sessionBus, systemBus, clock);
  RoundTrip sessionTrip{sessionBus};
  RoundTrip systemTrip{systemBus};

  std::unique_ptr<StubService> serve(const char* name, StubService::Behaviour behaviour) const {
    const PrivateBus& daemon = name == std::string(loginName) ? systemDaemon : sessionDaemon;
    return std::make_unique<StubService>(daemon.address(), name, std::move(behaviour));
  }

  void startBuses() {
    systemDaemon.start();
    sessionDaemon.start();
  }

  /// Connects the client to both buses. Returns when the client knows which services run.
  void connect() {
    sessionBus.connect();
    systemBus.connect();
    ASSERT_TRUE(knowsAll());
  }
  bool knowsAll() { return sessionTrip.succeeds(loop) && systemTrip.succeeds(loop); }

  bool comesAbout(const std::function<bool()>& condition) { return comesTrueElsewhere(loop, condition); }
  /// Waits until the service has received this call; false at the time limit.
  bool isAsked(const std::unique_ptr<StubService>& service, const std::string& call) {
    return comesAbout([&] {
      const Calls calls = service->calls();
      return std::find(calls.begin(), calls.end(), call) != calls.end();
    });
  }

  std::optional<std::uint32_t> create(PowerAssertionType type) {
    return inhibitors->create(type, on, reason);
  }
  /// Calls `create` when a service does not answer. Otherwise this rig replaces the client's timeout of 250
  /// ms by a longer one; `nobodyAnswers` prevents that.
  std::optional<std::uint32_t> createUnanswered(PowerAssertionType type) {
    nobodyAnswers = true;
    const auto identifier = create(type);
    nobodyAnswers = false;
    return identifier;
  }
};

}  // namespace kestrune::testing
