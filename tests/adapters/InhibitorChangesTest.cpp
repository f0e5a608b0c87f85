#include "tests/adapters/AwakeDesk.h"
#include "tests/rig/Stranger.h"

namespace kestrune::testing {
namespace {

struct InhibitorChanges : AwakeDesk {
  void SetUp() override { startBuses(); }

  /// Waits until the power assertion `identifier` is lost. Then releases it, because the client also releases
  /// an assertion that it has lost.
  void lose(std::uint32_t identifier) {
    EXPECT_TRUE(comesAbout([&] { return !inhibitors->isHeld(identifier); }));
    inhibitors->release(identifier);
  }
};

// --- services that start and end

TEST_F(InhibitorChanges, AreLostWithLogindUntilItRestarts) {
  login = serve(loginName, locks.grants());
  connect();
  const auto identifier = create(system).value();
  EXPECT_TRUE(inhibitors->isHeld(identifier));
  login.reset();
  lose(identifier);
  EXPECT_FALSE(create(system));
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
  login = serve(loginName, locks.grants());
  ASSERT_TRUE(knowsAll());
  const auto another = create(system).value();
  EXPECT_EQ(locks.held(), 1u);
  inhibitors->release(another);
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
}

TEST_F(InhibitorChanges, AreLostIfAScreenSaverRestartsAndRefuses) {
  saver = serve(saverName, StubService::grants(3));
  connect();
  const auto identifier = create(display).value();
  saver.reset();
  saver = serve(saverName, StubService::refuses(SD_BUS_ERROR_FAILED));
  ASSERT_TRUE(knowsAll());
  EXPECT_FALSE(inhibitors->isHeld(identifier));
  inhibitors->release(identifier);
  EXPECT_FALSE(create(display));
  saver->behave(StubService::grants(8));
  EXPECT_TRUE(create(display));
}

TEST_F(InhibitorChanges, IgnoreForgedNameOwnerChanged) {
  login = serve(loginName, locks.grants());
  connect();
  ASSERT_TRUE(create(system));
  Stranger stranger(systemDaemon);
  for (const char* const owner : {"", ":1.99"}) {
    stranger.tellOfOwner(systemTrip.uniqueName(), loginName, ":1.1", owner);
    ASSERT_TRUE(systemTrip.succeeds(loop));
    EXPECT_TRUE(create(system)) << "after \"" << owner << '"';
  }
  EXPECT_EQ(login->calls(), (Calls{loginCall, loginCall, loginCall}));
  EXPECT_EQ(locks.held(), 3u);
}

TEST_F(InhibitorChanges, MoveToASessionManagerThatAppears) {
  saver = serve(saverName, StubService::grants(3));
  connect();
  const auto identifier = create(display).value();
  manager = serve(managerName, StubService::grants(7));
  lose(identifier);
  EXPECT_TRUE(create(display));
  EXPECT_EQ(manager->calls(), Calls{managerCall});
  EXPECT_TRUE(isAsked(saver, "/org/freedesktop/ScreenSaver UnInhibit 3"));
}

// --- buses that end and start again

TEST_F(InhibitorChanges, AreLostWithTheBusesUntilTheyComeBack) {
  saver = serve(saverName, StubService::grants(3));
  login = serve(loginName, locks.grants());
  connect();
  const auto first = create(display).value();
  const auto second = create(system).value();
  saver.reset();
  login.reset();
  sessionDaemon.stop();
  systemDaemon.stop();
  lose(first);
  lose(second);
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
  startBuses();
  saver = serve(saverName, StubService::grants(8));
  login = serve(loginName, locks.grants());
  ASSERT_TRUE(comesAbout([this] { return sessionTrip.connections == 2 && systemTrip.connections == 2; }));
  ASSERT_TRUE(knowsAll());
  EXPECT_TRUE(create(display));
  EXPECT_TRUE(create(system));
  EXPECT_EQ(locks.held(), 1u);
}

TEST_F(InhibitorChanges, DoNotWaitForABusThatIsNotReady) {
  login = serve(loginName, locks.grants());
  saver = serve(saverName, StubService::grants(3));
  sessionDaemon.freeze();
  systemDaemon.freeze();
  sessionBus.connect();
  systemBus.connect();
  settleQueue(loop);
  EXPECT_LT(durationOf([this] {
              EXPECT_FALSE(create(display));
              EXPECT_FALSE(create(system));
            }),
            soon);
  EXPECT_EQ(quarterSeconds, 0);
  sessionDaemon.thaw();
  systemDaemon.thaw();
  ASSERT_TRUE(knowsAll());
  EXPECT_TRUE(create(display));
  EXPECT_TRUE(create(system));
}

TEST_F(InhibitorChanges, AreReleasedWithoutWaitingForAFrozenBus) {
  saver = serve(saverName, StubService::grants(3));
  login = serve(loginName, locks.grants());
  connect();
  const auto first = create(display).value();
  const auto second = create(system).value();
  sessionDaemon.freeze();
  systemDaemon.freeze();
  EXPECT_LT(durationOf([&] {
              inhibitors->release(first);
              inhibitors->release(second);
            }),
            soon);
  EXPECT_EQ(quarterSeconds, 2);
  sessionDaemon.thaw();
  systemDaemon.thaw();
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
  EXPECT_TRUE(isAsked(saver, "/org/freedesktop/ScreenSaver UnInhibit 3"));
}

}  // namespace
}  // namespace kestrune::testing
