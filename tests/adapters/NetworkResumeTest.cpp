#include <stdexcept>

#include "tests/adapters/NetworkRig.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/RoundTrip.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/Stranger.h"

namespace kestrune::testing {
namespace {

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

/// A machine on a cable that sleeps and resumes. Each resume leads to one update.
struct NetworkResume : ::testing::Test, MonitoredNetwork {
  void SetUp() override {
    daemon.start();
    bus.connect();
    network.ip({"route add default via 10.1.0.1"});
    startOn(viaCable);
    EXPECT_EQ(resumes(), 0u);
  }

  /// How many were reported so far.
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

TEST_F(NetworkResume, ReportsAnUnchangedPathAfterEachAndNotBeforeSleep) {
  FakeLogind logind(daemon);
  for (std::size_t night = 1; night <= 2; ++night) {
    logind.prepareForSleep(true);
    EXPECT_EQ(resumes(), night - 1);
    logind.prepareForSleep(false);
    EXPECT_EQ(resumes(), night);
  }
}

TEST_F(NetworkResume, IsHeardFromALogindThatStartsAnew) {
  FakeLogind(daemon).prepareForSleep(false);
  EXPECT_EQ(resumes(), 1u);
  FakeLogind(daemon).prepareForSleep(false);
  EXPECT_EQ(resumes(), 2u);
}

TEST_F(NetworkResume, IsHeardFromLogindOnlyAndInItsOwnWords) {
  FakeLogind(daemon, "org.example.login1").prepareForSleep(false);
  Stranger(daemon).tell(roundTrip.uniqueName(), "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                        "PrepareForSleep", "b", 0);
  FakeLogind logind(daemon);
  logind.say("s", "false");
  logind.say("");
  EXPECT_EQ(resumes(), 0u);
  logind.prepareForSleep(false);
  EXPECT_EQ(resumes(), 1u);
}

TEST_F(NetworkResume, IsHeardAgainWhenTheBusComesBack) {
  daemon.stop();
  daemon.start();
  ASSERT_TRUE(comesTrue(loop, [this] { return roundTrip.connections == 2; }));
  EXPECT_EQ(resumes(), 0u);
  FakeLogind(daemon).prepareForSleep(false);
  EXPECT_EQ(resumes(), 1u);
}

TEST_F(NetworkResume, IsNotHeardOnceCancelled) {
  monitor->cancel();
  FakeLogind(daemon).prepareForSleep(false);
  EXPECT_EQ(resumes(), 0u);
}

}  // namespace
}  // namespace kestrune::testing
