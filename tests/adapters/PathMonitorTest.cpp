#include "tests/adapters/NetworkRig.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/RoundTrip.h"
#include "tests/rig/Stranger.h"

namespace kestrune::testing {
namespace {

/// A network with a fake monitor: the test plugs the cable in or pulls it out.
struct FakeNetwork {
  CallLog log;
  FakePathMonitor fake{log};
  PathMonitor* monitor = &fake;
  NetworkPath path = disconnected;

  void plugIn() { fake.report(path = viaCable); }
  void pullOut() { fake.report(path = disconnected); }
  bool comesTrue(const std::function<bool()>& condition) {
    fake.report(path);
    return condition();
  }
};

struct RealNetwork : NetworkRig {
  void plugIn() { network.ip({"route add default via 10.1.0.1"}); }
  void pullOut() { network.ip({"route delete default"}); }
  bool comesTrue(const std::function<bool()>& condition) { return testing::comesTrue(loop, condition); }
};

template <typename Network>
struct PathMonitorContract : ::testing::Test {
  void start() {
    network.monitor->start(held.mainQueue(), [this](NetworkPath path) {
      EXPECT_TRUE(areRunning);
      updates.push_back(path);
    });
  }

  /// Waits for an update; returns whether its path is `path`.
  bool reports(const NetworkPath& path) {
    if (!network.comesTrue([this] { return held.mainJobs() > 0; })) return false;
    const std::size_t before = updates.size();
    runJobs();
    return updates.size() > before && updates.back() == path;
  }
  void runJobs() {
    areRunning = true;
    held.runMain();
    areRunning = false;
  }

  VirtualClock clock;
  CallLog log;
  FakeLoop held{clock, log};  ///< holds the monitor's updates until runJobs() is called
  bool areRunning = false;
  Network network;
  std::vector<NetworkPath> updates;
};

using Networks = ::testing::Types<FakeNetwork, RealNetwork>;
TYPED_TEST_SUITE(PathMonitorContract, Networks);

TYPED_TEST(PathMonitorContract, ReportsThePathAfterStartAndEachChange) {
  this->start();
  EXPECT_TRUE(this->updates.empty());
  EXPECT_TRUE(this->reports(disconnected));
  this->network.plugIn();
  EXPECT_TRUE(this->reports(viaCable));
  this->network.pullOut();
  EXPECT_TRUE(this->reports(disconnected));
}

TYPED_TEST(PathMonitorContract, CancelDropsQueuedUpdates) {
  this->start();
  EXPECT_TRUE(this->reports(disconnected));
  this->network.plugIn();
  ASSERT_TRUE(this->network.comesTrue([this] { return this->held.mainJobs() > 0; }));
  this->network.monitor->cancel();
  this->network.monitor->cancel();
  this->runJobs();
  EXPECT_EQ(this->updates.size(), 1u);
}

constexpr auto loginName = "org.freedesktop.login1";

/// Sends the D-Bus signal PrepareForSleep as the owner of the bus name `name`, by default that of logind.
struct FakeLogind : Stranger {
  explicit FakeLogind(const PrivateBus& daemon, const char* name = loginName) : Stranger(daemon, name) {}

  void prepareForSleep(bool goesToSleep) { say({}, "b", goesToSleep ? 1 : 0); }

  template <typename... Arguments>
  void say(const std::string& receiver, const char* types, Arguments... arguments) {
    tell(receiver, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep", types,
         arguments...);
  }
};

/// A machine with a wired network and a running monitor. Each resume from suspend leads to one update.
struct NetworkResume : ::testing::Test, MonitoredNetwork {
  void SetUp() override {
    daemon.start();
    bus.connect();
    network.ip({"route add default via 10.1.0.1"});
    startOn(viaCable);
    EXPECT_EQ(resumes(), 0u);
  }

  /// Returns the number of updates since the start. Checks that every update is `viaCable`.
  std::size_t resumes() {
    EXPECT_TRUE(roundTrip.succeeds(loop));
    EXPECT_TRUE(isIdle(loop));
    for (const auto& update : updates) EXPECT_EQ(update, viaCable);
    return updates.size();
  }

  PrivateBus daemon;
  ScopedVariable address{"DBUS_SYSTEM_BUS_ADDRESS", daemon.address()};
  RoundTrip roundTrip{bus};
};

TEST_F(NetworkResume, EachResumeReportsTheSamePath) {
  FakeLogind logind(daemon);
  for (std::size_t night = 1; night <= 2; ++night) {
    logind.prepareForSleep(true);
    EXPECT_EQ(resumes(), night - 1);
    logind.prepareForSleep(false);
    EXPECT_EQ(resumes(), night);
  }
}

TEST_F(NetworkResume, OnlyTheSignalOfLogindCounts) {
  FakeLogind(daemon, "org.example.login1").prepareForSleep(false);
  FakeLogind(daemon, "org.example.login1").say(roundTrip.uniqueName(), "b", 0);
  FakeLogind logind(daemon);
  logind.say({}, "s", "false");
  logind.say({}, "");
  EXPECT_EQ(resumes(), 0u);
  logind.prepareForSleep(false);
  EXPECT_EQ(resumes(), 1u);
}

TEST_F(NetworkResume, WorksAfterARestartOfTheBusUntilCancelled) {
  daemon.stop();
  daemon.start();
  ASSERT_TRUE(comesTrue(loop, [this] { return roundTrip.connections == 2; }));
  EXPECT_EQ(resumes(), 0u);
  // Each FakeLogind is a new connection to the bus, as after a restart of logind. The monitor must receive
  // the signals of both connections.
  for (std::size_t time = 1; time <= 2; ++time) {
    FakeLogind(daemon).prepareForSleep(false);
    EXPECT_EQ(resumes(), time);
  }
  monitor->cancel();
  FakeLogind(daemon).prepareForSleep(false);
  EXPECT_EQ(resumes(), 2u);
}

}  // namespace
}  // namespace kestrune::testing
