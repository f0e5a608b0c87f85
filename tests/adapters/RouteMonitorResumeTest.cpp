#include <stdexcept>

#include "tests/adapters/RouteMonitorNetwork.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/RoundTrip.h"
#include "tests/support/ScopedVariable.h"
#include "tests/support/Stranger.h"

namespace kestrune::testing {
namespace {

/// A system bus of the test's own.
struct PrivateSystemBus {
  PrivateBus daemon;
  ScopedVariable address{"DBUS_SYSTEM_BUS_ADDRESS", daemon.address()};
};

/// Says on a bus what logind says, under its name or another.
class FakeLogind {
 public:
  explicit FakeLogind(const PrivateBus& daemon, const char* name = "org.freedesktop.login1") {
    const bool done = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, daemon.address().c_str()) >= 0 &&
                      sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
                      sd_bus_request_name(bus, name, 0) >= 0;
    if (!done) throw std::runtime_error("no logind");
  }
  ~FakeLogind() { sd_bus_flush_close_unref(bus); }
  FakeLogind(const FakeLogind&) = delete;
  FakeLogind& operator=(const FakeLogind&) = delete;

  /// Returns when the bus has passed it on.
  void prepareForSleep(bool goesToSleep) { say("b", goesToSleep ? 1 : 0); }

  template <typename... Arguments>
  void say(const char* types, Arguments... arguments) {
    sd_bus_emit_signal(bus, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep",
                       types, arguments...);
    sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
                       nullptr, nullptr, "");
  }

 private:
  sd_bus* bus = nullptr;
};

struct RouteMonitorResumeSignal : ::testing::Test {
  /// How often a resume was heard of so far.
  int heardOf() {
    EXPECT_TRUE(roundTrip.succeeds(loop));
    return resumes;
  }

  void listen() {
    system.daemon.start();
    bus.connect();
    EXPECT_EQ(heardOf(), 0);
  }

  SignalState signals;
  PrivateSystemBus system;
  EventLoop loop;
  SystemBus bus{loop};
  RoundTrip roundTrip{bus};
  int resumes = 0;
  std::unique_ptr<ResumeObserver> observer = std::make_unique<ResumeObserver>(bus, [this] { ++resumes; });
};

TEST_F(RouteMonitorResumeSignal, IsHeardOnEachResumeAndNotBeforeSleep) {
  listen();
  FakeLogind logind(system.daemon);
  for (int night = 1; night <= 2; ++night) {
    logind.prepareForSleep(true);
    EXPECT_EQ(heardOf(), night - 1);
    logind.prepareForSleep(false);
    EXPECT_EQ(heardOf(), night);
  }
}

TEST_F(RouteMonitorResumeSignal, IsHeardFromALogindThatStartsAnew) {
  listen();
  FakeLogind(system.daemon).prepareForSleep(false);
  FakeLogind(system.daemon).prepareForSleep(false);
  EXPECT_EQ(heardOf(), 2);
}

TEST_F(RouteMonitorResumeSignal, IsNotBelievedOfOthers) {
  listen();
  FakeLogind(system.daemon, "org.example.login1").prepareForSleep(false);
  EXPECT_EQ(heardOf(), 0);
}

TEST_F(RouteMonitorResumeSignal, IsNotBelievedOfOthersWhoTellNobodyElse) {
  listen();
  FakeLogind logind(system.daemon);
  Stranger(system.daemon)
      .tell(roundTrip.uniqueName(), "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
            "PrepareForSleep", "b", 0);
  EXPECT_EQ(heardOf(), 0);
  logind.prepareForSleep(false);
  EXPECT_EQ(heardOf(), 1);
}

TEST_F(RouteMonitorResumeSignal, IsIgnoredWhenItIsNoSuchSignal) {
  listen();
  FakeLogind logind(system.daemon);
  logind.say("s", "false");
  logind.say("");
  EXPECT_EQ(heardOf(), 0);
  logind.prepareForSleep(false);
  EXPECT_EQ(heardOf(), 1);
}

TEST_F(RouteMonitorResumeSignal, IsHeardAgainWhenTheBusComesBack) {
  listen();
  system.daemon.stop();
  system.daemon.start();
  ASSERT_TRUE(comesTrue(loop, [this] { return roundTrip.connections == 2; }));
  EXPECT_EQ(heardOf(), 0);
  FakeLogind(system.daemon).prepareForSleep(false);
  EXPECT_EQ(heardOf(), 1);
}

TEST_F(RouteMonitorResumeSignal, IsHeardNoMoreByAnObserverThatIsGone) {
  listen();
  FakeLogind logind(system.daemon);
  observer.reset();
  logind.prepareForSleep(false);
  EXPECT_EQ(heardOf(), 0);
}

TEST_F(RouteMonitorResumeSignal, MayDestroyItsObserver) {
  listen();
  observer = std::make_unique<ResumeObserver>(bus, [this] {
    ++resumes;
    observer.reset();
  });
  EXPECT_EQ(heardOf(), 0);
  FakeLogind logind(system.daemon);
  logind.prepareForSleep(false);
  logind.prepareForSleep(false);
  EXPECT_EQ(heardOf(), 1);
}

/// A machine on a cable that sleeps and resumes.
struct RouteMonitorResume : RouteMonitorNetwork {
  void SetUp() override {
    system.daemon.start();
    bus.connect();
    network.addCable("cable", "10.1.0.2/24");
    network.ip("route add default via 10.1.0.1 dev cable metric 100");
    startOn(viaCable);
    ASSERT_TRUE(RoundTrip(bus).succeeds(loop));
  }

  PrivateSystemBus system;
};

TEST_F(RouteMonitorResume, ReportsAnUnchangedPathAgain) {
  FakeLogind logind(system.daemon);
  logind.prepareForSleep(true);
  const Seconds resumed = clock.awakeTime();
  logind.prepareForSleep(false);
  lastChange = clock.awakeTime();
  EXPECT_TRUE(reports(viaCable));
  EXPECT_GE(lastReport - resumed, PathReports::gainDelay);
  EXPECT_TRUE(wasSoon());
  EXPECT_TRUE(updates.empty());
}

TEST_F(RouteMonitorResume, ReportsOnceANetworkThatComesBackInTime) {
  FakeLogind logind(system.daemon);
  logind.prepareForSleep(true);
  network.ip("link set cable-peer down");
  logind.prepareForSleep(false);
  EXPECT_TRUE(RoundTrip(bus).succeeds(loop));
  timeUntil(viaCable, "link set cable-peer up");
  EXPECT_TRUE(updates.empty());
}

TEST_F(RouteMonitorResume, ReportsANetworkThatDoesNotComeBack) {
  FakeLogind logind(system.daemon);
  logind.prepareForSleep(true);
  network.ip("link set cable-peer down");
  const Seconds resumed = clock.awakeTime();
  logind.prepareForSleep(false);
  EXPECT_TRUE(reports(disconnected));
  EXPECT_GE(lastReport - resumed, PathReports::lossDelay);
}

TEST_F(RouteMonitorResume, ReportsNothingOnceCancelled) {
  monitor->cancel();
  FakeLogind(system.daemon).prepareForSleep(false);
  EXPECT_TRUE(RoundTrip(bus).succeeds(loop));
  settleQueue(loop);
  EXPECT_TRUE(updates.empty());
}

}  // namespace
}  // namespace kestrune::testing
