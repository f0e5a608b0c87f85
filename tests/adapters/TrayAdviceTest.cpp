#include "adapters/tray/TrayAdvice.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/RoundTrip.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/StubService.h"

namespace kestrune::testing {
namespace {

constexpr auto watcherName = "org.kde.StatusNotifierWatcher";

/// Behaves as the desktop's tray service (StatusNotifierWatcher). `there`: what the service answers when
/// asked whether a tray host (a panel that shows icons) is registered.
StubService::Behaviour watcherWithHost(bool there) {
  return StubService::returns("v", "b", there ? 1 : 0);
}

struct TrayAdviceTo : ::testing::Test {
  SignalState restored;
  PrivateBus daemon;
  EventLoop loop;
  VirtualClock clock;
  CallLog log;
  FakeLoop timers{clock, log};
  SessionBus bus{loop};
  FakeNotifications notifications{log};
  RoundTrip trip{bus};
  std::unique_ptr<StubService> watcher;
  std::unique_ptr<TrayAdvice> advice;

  void start() {
    daemon.start();
    bus.connect();
    ASSERT_TRUE(trip.succeeds(loop));
    advice = std::make_unique<TrayAdvice>(bus, timers, notifications);
  }
  void watch(StubService::Behaviour behaviour) {
    watcher = std::make_unique<StubService>(daemon.address(), watcherName, std::move(behaviour));
  }
  /// Advances the time by `duration`. If the fake tray service (`watcher`) runs, waits until it has replied
  /// to the client's call. Returns the number of notifications so far.
  std::size_t adviceAfter(Seconds duration) {
    timers.advance(duration);
    if (watcher) {
      EXPECT_TRUE(comesTrueElsewhere(loop, [this] { return !watcher->calls().empty(); }));
      watcher->settle();
    }
    EXPECT_TRUE(trip.succeeds(loop));
    return notifications.posted.size();
  }
  /// Lets the client look for a tray twice. Returns the number of notifications after the second look.
  std::size_t adviceAtLast() {
    EXPECT_EQ(adviceAfter(TrayAdvice::patience), 0U);
    if (watcher) watcher->newCalls();
    return adviceAfter(TrayAdvice::secondLook);
  }
};

TEST_F(TrayAdviceTo, SaysNothingIfTheWatcherDoesNotKnowTheProperty) {
  start();
  watch(StubService::offersNothing());
  EXPECT_EQ(adviceAfter(TrayAdvice::patience), 0U);
  EXPECT_EQ(timers.liveTimers(), 0U);
}

TEST_F(TrayAdviceTo, NotifiesOnceWithoutATray) {
  EXPECT_EQ(TrayAdvice::patience, Seconds{30});
  start();
  EXPECT_EQ(adviceAtLast(), 1U);
  const Notification& said = notifications.posted.at(0);
  EXPECT_NE(said.body.find("gnome-shell-extension-appindicator"), std::string::npos);
  // Many desktops show only the first line of a notification, so this line must say what to do.
  const std::string firstLine = said.body.substr(0, said.body.find('\n'));
  EXPECT_NE(firstLine.find("再啟動一次 Kestrune"), std::string::npos);
  EXPECT_NE(firstLine.find("AppIndicator"), std::string::npos);
  EXPECT_EQ(adviceAfter(2 * TrayAdvice::patience), 1U);
}

TEST_F(TrayAdviceTo, WithdrawsTheNotificationWhenAHostShowsIcons) {
  start();
  EXPECT_EQ(adviceAtLast(), 1U);
  EXPECT_EQ(notifications.posted.at(0).lasting, true);
  watch(watcherWithHost(false));
  advice->trayChanged();
  EXPECT_EQ(adviceAfter(Seconds{0}), 1U);
  EXPECT_EQ(notifications.withdrawn, CallLog{}) << "nobody shows the icons that the watcher knows";
  EXPECT_EQ(timers.liveTimers(), 0U);
  watcher->behave(watcherWithHost(true));
  watcher->newCalls();
  advice->trayChanged();
  EXPECT_EQ(adviceAfter(Seconds{0}), 1U);
  EXPECT_EQ(notifications.withdrawn, CallLog{notifications.posted.at(0).identifier});
  EXPECT_EQ(timers.liveTimers(), 0U);
}

TEST_F(TrayAdviceTo, DoesNotLookAgainUnlessItHasNotified) {
  start();
  watch(watcherWithHost(true));
  EXPECT_EQ(adviceAfter(TrayAdvice::patience), 0U);
  EXPECT_EQ(watcher->newCalls().size(), 1U);
  advice->trayChanged();
  watcher->settle();
  EXPECT_TRUE(trip.succeeds(loop));
  EXPECT_EQ(watcher->newCalls().size(), 0U);
}

TEST_F(TrayAdviceTo, SaysNothingIfTheTrayRestartsDuringTheFirstLook) {
  start();
  EXPECT_EQ(adviceAfter(TrayAdvice::patience), 0U);
  watch(watcherWithHost(true));
  EXPECT_EQ(adviceAfter(TrayAdvice::secondLook), 0U);
  EXPECT_EQ(timers.liveTimers(), 0U);
}

TEST_F(TrayAdviceTo, WaitsForABus) {
  bus.connect();
  advice = std::make_unique<TrayAdvice>(bus, timers, notifications);
  timers.advance(2 * TrayAdvice::patience);
  EXPECT_TRUE(notifications.posted.empty());
  daemon.start();
  EXPECT_EQ(adviceAfter(Seconds{0}), 0U);
  EXPECT_EQ(adviceAtLast(), 1U);
}

TEST_F(TrayAdviceTo, LooksAgainAfterTheBusWasLost) {
  start();
  for (int loss = 1; loss <= 2; ++loss) {
    watch(StubService::saysNothing());
    EXPECT_EQ(adviceAfter(TrayAdvice::patience), 0U);
    daemon.stop();
    ASSERT_TRUE(comesTrue(loop, [this] { return trip.bus == nullptr; }));
    watcher.reset();
    daemon.start();
    ASSERT_TRUE(comesTrue(loop, [&] { return trip.connections == loss + 1; }));
  }
  EXPECT_EQ(adviceAtLast(), 1U);
}

TEST_F(TrayAdviceTo, LooksAgainUntilTheWatcherAnswers) {
  start();
  watch(StubService::refuses(SD_BUS_ERROR_NO_REPLY));
  EXPECT_EQ(adviceAfter(TrayAdvice::patience), 0U);
  watcher->behave(watcherWithHost(false));
  watcher->newCalls();
  EXPECT_EQ(adviceAtLast(), 1U);
}

TEST_F(TrayAdviceTo, GivesUpAfterTenLooksWithoutAnAnswer) {
  start();
  watch(StubService::refuses(SD_BUS_ERROR_NO_REPLY));
  for (int look = 0; look < TrayAdvice::looksInVain; ++look) {
    EXPECT_EQ(adviceAfter(TrayAdvice::patience), 0U);
    ASSERT_EQ(watcher->newCalls().size(), 1U);
  }
  timers.advance(TrayAdvice::patience);
  EXPECT_EQ(timers.liveTimers(), 0U);
}

}  // namespace
}  // namespace kestrune::testing
