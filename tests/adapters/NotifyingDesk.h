#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "adapters/desktop/DesktopNotifications.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/RoundTrip.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/StubService.h"

namespace kestrune::testing {

inline constexpr auto daemonName = "org.freedesktop.Notifications";
inline const std::string question = "/org/freedesktop/Notifications GetCapabilities";

using Calls = std::vector<std::string>;

/// Returns the call that shows a notification, as StubService records it.
inline std::string notify(const std::string& title, const std::string& body, bool lasting = false) {
  return "/org/freedesktop/Notifications Notify 'Kestrune', 0, '/logo.png', '" + title + "', '" + body +
         "', [], {'desktop-entry': s 'com.dovrel.kestrune.menuclient', " +
         (lasting ? "'resident': b true}, 0" : "'transient': b true}, -1");
}

/// Behaves as a notification daemon that does not read markup.
inline bool plain(sd_bus_message* call) {
  if (isMethod(call, "GetCapabilities")) sd_bus_reply_method_return(call, "as", 2, "body", "actions");
  return true;
}
/// Behaves as a notification daemon that reads markup.
inline bool markup(sd_bus_message* call) {
  if (isMethod(call, "GetCapabilities")) {
    sd_bus_reply_method_return(call, "as", 3, "body", "body-markup", "actions");
  }
  return true;
}

/// A desktop whose bus runs when the test begins. The test starts and stops the notification daemon.
struct NotifyingDesk : ::testing::Test {
  void SetUp() override { bus.start(); }

  SignalState restored;
  PrivateBus bus;
  EventLoop loop;
  SessionBus sessionBus{loop};
  std::unique_ptr<StubService> daemon;
  std::unique_ptr<kestrune::DesktopNotifications> notifications =
      std::make_unique<kestrune::DesktopNotifications>(sessionBus, "/logo.png");
  RoundTrip trip{sessionBus};

  std::unique_ptr<StubService> serve(StubService::Behaviour behaviour) const {
    return std::make_unique<StubService>(bus.address(), daemonName, std::move(behaviour));
  }
  /// Connects to the bus. If there is a daemon, waits until `notifications` knows the daemon's capabilities.
  void connect() {
    if (trip.bus == nullptr) sessionBus.connect();
    ASSERT_TRUE(trip.succeeds(loop));
    if (!daemon) return;
    ASSERT_TRUE(comesTo(1));
    daemon->settle();
    ASSERT_TRUE(trip.succeeds(loop));
  }
  void add(const std::string& title, const std::string& body) { notifications->add({"id", title, body}); }
  bool comesTo(std::size_t calls) {
    return comesTrueElsewhere(loop, [this, calls] { return daemon->calls().size() >= calls; });
  }
  std::string lastCall() const {
    const Calls calls = daemon->calls();
    return calls.empty() ? "" : calls.back();
  }
  /// Shows a notification with `body`. Returns the body that the daemon receives, or "nothing" if it receives
  /// no notification in time.
  std::string shown(const std::string& body) {
    const std::string before = "'/logo.png', 't', '";
    daemon->newCalls();
    add("t", body);
    if (!comesTrueElsewhere(loop, [&] { return lastCall().find(before) != std::string::npos; }))
      return "nothing";
    const std::string call = lastCall();
    const auto from = call.find(before) + before.size();
    return call.substr(from, call.rfind("', [], {") - from);
  }
};

}  // namespace kestrune::testing
