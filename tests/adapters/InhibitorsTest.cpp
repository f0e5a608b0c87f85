#include <dlfcn.h>

#include <set>

#include "tests/adapters/AwakeDesk.h"

// Replaces sd_bus_call in this program. Counts the calls with a timeout of 250 ms and, unless
// `nobodyAnswers`, gives them a longer timeout, so that a slow service does not make a test fail.
extern "C" int sd_bus_call(sd_bus* bus, sd_bus_message* call, std::uint64_t limit, sd_bus_error* error,
                           sd_bus_message** reply) {
  using namespace kestrune;
  using namespace kestrune::testing;
  static const auto real = reinterpret_cast<decltype(&sd_bus_call)>(dlsym(RTLD_NEXT, "sd_bus_call"));
  const auto microseconds = [](Seconds duration) {
    return static_cast<std::uint64_t>(duration.count() * 1e6);
  };
  if (limit == microseconds(patienceWithAService)) {
    ++quarterSeconds;
    if (!nobodyAnswers) limit = microseconds(patience);
  }
  return real(bus, call, limit, error, reply);
}

namespace kestrune::testing {
namespace {

struct Inhibitors : AwakeDesk {
  void SetUp() override { startBuses(); }
};

// --- requests to the services

TEST_F(Inhibitors, AskTheSessionManagerAloneForTheDisplay) {
  manager = serve(managerName, StubService::grants(7));
  saver = serve(saverName, StubService::grants(1));
  power = serve(powerName, StubService::grants(1));
  login = serve(loginName, locks.grants());
  connect();
  const auto identifier = create(display).value();
  EXPECT_EQ(manager->newCalls(), Calls{managerCall});
  inhibitors->release(identifier);
  EXPECT_TRUE(isAsked(manager, "/org/gnome/SessionManager Uninhibit 7"));
  EXPECT_EQ(saver->calls(), Calls{});
  EXPECT_EQ(power->calls(), Calls{});
  EXPECT_EQ(login->calls(), Calls{});
}

TEST_F(Inhibitors, AskBothFreedesktopServicesForTheDisplayWithoutASessionManager) {
  saver = serve(saverName, StubService::grants(0));  // 0 is a valid inhibitor cookie
  power = serve(powerName, StubService::grants(5));
  login = serve(loginName, locks.grants());
  connect();
  const auto identifier = create(display).value();
  EXPECT_EQ(saver->newCalls(), Calls{saverCall});
  EXPECT_EQ(power->newCalls(), Calls{powerCall});
  inhibitors->release(identifier);
  EXPECT_TRUE(isAsked(saver, "/org/freedesktop/ScreenSaver UnInhibit 0"));
  EXPECT_TRUE(isAsked(power, "/org/freedesktop/PowerManagement/Inhibit UnInhibit 5"));
  EXPECT_EQ(login->calls(), Calls{});
}

TEST_F(Inhibitors, HaveAnIdentifierEachAndAreReleasedByIt) {
  login = serve(loginName, locks.grants());
  connect();
  std::set<std::uint32_t> identifiers{0};
  for (const auto type : {display, system, display}) identifiers.insert(create(type).value());
  ASSERT_EQ(identifiers.size(), 4u);
  std::size_t held = 4;
  for (const auto identifier : identifiers) {
    EXPECT_EQ(inhibitors->isHeld(identifier), identifier != 0);
    for (int time = 0; time < 2; ++time) inhibitors->release(identifier);
    EXPECT_FALSE(inhibitors->isHeld(identifier));
    --held;
    EXPECT_TRUE(comesAbout([&] { return locks.held() == held; }));
  }
}

TEST_F(Inhibitors, AskThePowerManagementForTheSystemAsWell) {
  manager = serve(managerName, StubService::grants(1));
  saver = serve(saverName, StubService::grants(1));
  power = serve(powerName, StubService::grants(5));
  login = serve(loginName, locks.grants());
  connect();
  const auto identifier = create(system).value();
  EXPECT_EQ(login->calls(), Calls{loginCall});
  EXPECT_EQ(locks.held(), 1u);
  EXPECT_EQ(power->newCalls(), Calls{powerCall});
  EXPECT_EQ(manager->calls(), Calls{});
  EXPECT_EQ(saver->calls(), Calls{});
  inhibitors->release(identifier);
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
  EXPECT_TRUE(isAsked(power, "/org/freedesktop/PowerManagement/Inhibit UnInhibit 5"));
}

TEST_F(Inhibitors, AskThePowerManagementAloneForTheSystemWithoutLogind) {
  power = serve(powerName, StubService::grants(5));
  connect();
  EXPECT_TRUE(create(system));
  EXPECT_EQ(power->calls(), Calls{powerCall});
}

TEST_F(Inhibitors, UseTheSecondPathOfTheScreenSaver) {
  saver = serve(saverName, [grant = StubService::grants(3)](sd_bus_message* call) {
    return std::string_view(sd_bus_message_get_path(call)) == "/ScreenSaver" && grant(call);
  });
  connect();
  const auto first = create(display).value();
  EXPECT_TRUE(create(display));
  EXPECT_EQ(saver->newCalls(), (Calls{saverCall, otherSaverCall, otherSaverCall}));
  inhibitors->release(first);
  EXPECT_TRUE(isAsked(saver, "/ScreenSaver UnInhibit 3"));
}

TEST_F(Inhibitors, AskAServiceThatLackedTheMethodAgainAfterAMinute) {
  power = serve(powerName, StubService::offersNothing());
  login = serve(loginName, locks.grants());
  connect();
  const auto first = create(display).value();
  EXPECT_EQ(locks.held(), 1u);
  power->behave(StubService::grants(5));
  clock.sleep(Seconds{59.9});
  EXPECT_TRUE(inhibitors->isHeld(first));
  clock.sleep(Seconds{0.1});
  EXPECT_FALSE(inhibitors->isHeld(first));
  inhibitors->release(first);
  const auto second = create(display).value();
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
  EXPECT_EQ(power->newCalls(), (Calls{powerCall, powerCall}));
  inhibitors->release(second);
  EXPECT_TRUE(isAsked(power, "/org/freedesktop/PowerManagement/Inhibit UnInhibit 5"));
}

TEST_F(Inhibitors, AreReleasedByTheDestructor) {
  saver = serve(saverName, StubService::grants(3));
  login = serve(loginName, locks.grants());
  connect();
  ASSERT_TRUE(create(display));
  ASSERT_TRUE(create(system));
  inhibitors.reset();
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
  EXPECT_TRUE(isAsked(saver, "/org/freedesktop/ScreenSaver UnInhibit 3"));
}

// --- services that refuse

TEST_F(Inhibitors, HoldAllOrNothing) {
  saver = serve(saverName, StubService::grants(3));
  power = serve(powerName, StubService::refuses(SD_BUS_ERROR_LIMITS_EXCEEDED));
  login = serve(loginName, locks.grants());
  connect();
  EXPECT_FALSE(create(display));
  EXPECT_TRUE(isAsked(saver, "/org/freedesktop/ScreenSaver UnInhibit 3"));
  EXPECT_FALSE(create(system));
  EXPECT_TRUE(comesAbout([this] { return locks.held() == 0; }));
}

TEST_F(Inhibitors, AskNobodyElseIfTheSessionManagerRefuses) {
  manager = serve(managerName, StubService::refuses("org.gnome.SessionManager.GeneralError"));
  saver = serve(saverName, StubService::grants(3));
  login = serve(loginName, locks.grants());
  connect();
  EXPECT_FALSE(create(display));
  EXPECT_EQ(saver->calls(), Calls{});
  EXPECT_EQ(login->calls(), Calls{});
  manager->behave(StubService::grants(3));
  EXPECT_TRUE(create(display)) << "it is asked again next time";
}

TEST_F(Inhibitors, RefuseMalformedReplies) {
  const auto rubbish = StubService::returns("as", 2, "no", "cookie");
  saver = serve(saverName, rubbish);
  login = serve(loginName, rubbish);
  connect();
  EXPECT_FALSE(create(display));
  EXPECT_FALSE(create(system));
  saver->behave(StubService::returns(""));
  EXPECT_FALSE(create(display));
}

// --- timeouts of calls

TEST_F(Inhibitors, WaitFor250MillisecondsAndThenDoNotAskForAMinute) {
  saver = serve(saverName, StubService::saysNothing());
  connect();
  const Seconds first = durationOf([this] { EXPECT_FALSE(createUnanswered(display)); });
  EXPECT_GE(first, patienceWithAService);
  EXPECT_LT(first, soon);
  EXPECT_LT(durationOf([this] { EXPECT_FALSE(createUnanswered(display)); }), soon);
  clock.sleep(Seconds{59.9});
  EXPECT_LT(durationOf([this] { EXPECT_FALSE(createUnanswered(display)); }), soon);
  EXPECT_EQ(quarterSeconds, 1);
  ASSERT_TRUE(isAsked(saver, saverCall));
  EXPECT_EQ(saver->newCalls(), Calls{saverCall});
  saver->behave(StubService::grants(3));
  // End the minute in which the service is not asked again. Time in suspend counts too.
  clock.suspend(Seconds{0.1});
  EXPECT_TRUE(create(display));
  EXPECT_EQ(saver->newCalls(), Calls{saverCall});
}

TEST_F(Inhibitors, AskASilentServiceAtOnceAfterItsRestart) {
  saver = serve(saverName, StubService::saysNothing());
  connect();
  EXPECT_FALSE(createUnanswered(display));
  saver.reset();
  saver = serve(saverName, StubService::grants(3));
  ASSERT_TRUE(sessionTrip.succeeds(loop));
  EXPECT_TRUE(create(display));
}

TEST_F(Inhibitors, GiveBackALateGrant) {
  sd_bus_message* held = nullptr;
  saver = serve(saverName, StubService::holds("Inhibit", held));
  connect();
  EXPECT_FALSE(createUnanswered(display));
  ASSERT_TRUE(isAsked(saver, saverCall));
  saver->answer(held, StubService::returns("u", 9));
  EXPECT_TRUE(isAsked(saver, "/org/freedesktop/ScreenSaver UnInhibit 9"));
}

}  // namespace
}  // namespace kestrune::testing
