#include <gtest/gtest.h>

#include "tests/adapters/AwakeDesk.h"
#include "tests/rig/Stranger.h"

namespace kestrune::testing {
namespace {

struct InhibitorChanges : AwakeDesk {
  void SetUp() override { startBuses(); }
};

// --- services that come and go

TEST_F(InhibitorChanges, AskEachServiceOnceAtATime) {
  login = serve(loginName, locks.grants());
  connect();
  ASSERT_TRUE(create(display));
  saver = serve(saverName, StubService::saysNothing());
  ASSERT_TRUE(comesAbout([this] { return asked(saver, saverCall); }));
  power = serve(powerName, StubService::grants(5));
  ASSERT_TRUE(comesAbout([this] { return asked(power, powerCall); }));
  ASSERT_TRUE(sessionTrip.succeeds(loop));
  saver->settle();
  EXPECT_EQ(saver->calls(), Calls{saverCall});
}

TEST_F(InhibitorChanges, AreRequestedFromANewOwnerOfTheName) {
  saver = serve(saverName, StubService::grants(3));
  connect();
  ASSERT_TRUE(create(display));
  const auto replacement = serve(saverName, StubService::grants(8));
  EXPECT_TRUE(comesAbout([&] { return asked(replacement, saverCall); }));
  EXPECT_TRUE(comesAbout([this] { return asked(saver, "/org/freedesktop/ScreenSaver UnInhibit 3"); }));
}

TEST_F(InhibitorChanges, AreLostWithLogindUntilItRestarts) {
  login = serve(loginName, locks.grants());
  connect();
  const auto identifier = create(system).value();
  EXPECT_TRUE(inhibitors->isHeld(identifier));
  login.reset();
  ASSERT_TRUE(systemTrip.succeeds(loop));
  EXPECT_FALSE(inhibitors->isHeld(identifier));
  EXPECT_EQ(locks.held(), 1u) << "the lock is kept all the same";
  login = serve(loginName, locks.grants());
  EXPECT_TRUE(comesAbout([&] { return inhibitors->isHeld(identifier); }));
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 1; }));
  inhibitors->release(identifier);
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
}

TEST_F(InhibitorChanges, AreLostIfAScreenSaverRestartsAndRefuses) {
  saver = serve(saverName, StubService::grants(3));
  connect();
  const auto identifier = create(display).value();
  saver.reset();
  saver = serve(saverName, StubService::refuses(SD_BUS_ERROR_FAILED));
  ASSERT_TRUE(comesAbout([this] { return asked(saver, saverCall); }));
  saver->settle();
  ASSERT_TRUE(sessionTrip.succeeds(loop));
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
  ASSERT_TRUE(create(display));
  manager = serve(managerName, StubService::grants(7));
  EXPECT_TRUE(comesAbout([this] { return asked(saver, "/org/freedesktop/ScreenSaver UnInhibit 3"); }));
  EXPECT_EQ(manager->calls(), Calls{managerCall});
}

TEST_F(InhibitorChanges, AreKeptUntilTheNewServiceHasGranted) {
  login = serve(loginName, locks.grants());
  connect();
  ASSERT_TRUE(create(display));
  saver = serve(saverName, StubService::saysNothing());
  ASSERT_TRUE(comesAbout([this] { return asked(saver, saverCall); }));
  ASSERT_TRUE(sessionTrip.succeeds(loop));
  EXPECT_EQ(locks.held(), 1u);
  saver.reset();
  saver = serve(saverName, StubService::grants(3));
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
}

TEST_F(InhibitorChanges, FallBackToLogind) {
  saver = serve(saverName, StubService::grants(3));
  login = serve(loginName, locks.grants());
  connect();
  const auto identifier = create(display).value();
  saver.reset();
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 1; }));
  EXPECT_TRUE(comesAbout([&] { return inhibitors->isHeld(identifier); }));
}

TEST_F(InhibitorChanges, GiveBackAGrantThatComesAfterTheRelease) {
  saver = serve(saverName, StubService::grants(3));
  connect();
  const auto identifier = create(display).value();
  saver.reset();
  sd_bus_message* held = nullptr;
  saver = serve(saverName, StubService::holds("Inhibit", held));
  ASSERT_TRUE(comesAbout([this] { return asked(saver, saverCall); }));
  inhibitors->release(identifier);
  saver->perform([&held] {
    sd_bus_reply_method_return(held, "u", 9);
    sd_bus_message_unref(held);
  });
  EXPECT_TRUE(comesAbout([this] { return asked(saver, "/org/freedesktop/ScreenSaver UnInhibit 9"); }));
}

// --- buses that come and go

TEST_F(InhibitorChanges, AreRequestedAgainWhenTheBusesComeBack) {
  saver = serve(saverName, StubService::grants(3));
  login = serve(loginName, locks.grants());
  connect();
  ASSERT_TRUE(create(display));
  const auto identifier = create(system).value();
  saver.reset();
  login.reset();
  sessionDaemon.stop();
  systemDaemon.stop();
  EXPECT_TRUE(comesAbout([&] { return !inhibitors->isHeld(identifier); }));
  startBuses();
  saver = serve(saverName, StubService::grants(8));
  login = serve(loginName, locks.grants());
  EXPECT_TRUE(comesAbout([this] { return asked(saver, saverCall); }));
  EXPECT_TRUE(comesAbout([this] { return asked(login, loginCall); }));
  EXPECT_TRUE(comesAbout([&] { return inhibitors->isHeld(identifier); }));
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 1; }));
  inhibitors->release(identifier);
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
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
  EXPECT_TRUE(comesAbout([this] { return asked(saver, "/org/freedesktop/ScreenSaver UnInhibit 3"); }));
}

}  // namespace
}  // namespace kestrune::testing
