#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

#include <cstring>

#include "tests/adapters/RouteMonitorNetwork.h"
#include "tests/support/ForkedProgram.h"
#include "tests/support/ResourceLimit.h"

namespace kestrune::testing {
namespace {

struct RouteMonitor : RouteMonitorNetwork {
  /// A cable with a default route over it, known as one, and the monitor started.
  void startOnCable() {
    network.addCable("cable", "10.1.0.2/24");
    network.ip("route add default via 10.1.0.1 dev cable metric 100");
    startOn(viaCable);
  }

  /// A tunnel as a user's VPN opens one; it has a carrier while the descriptor lives.
  static FileDescriptor openTunnel(const char* name, int mode) {
    FileDescriptor tunnel(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    ifreq request{};
    std::strncpy(request.ifr_name, name, sizeof request.ifr_name - 1);
    request.ifr_flags = static_cast<short>(mode | IFF_NO_PI);
    if (ioctl(tunnel.get(), TUNSETIFF, &request) != 0) tunnel.reset();
    return tunnel;
  }
};

// --- whether there is a path

TEST_F(RouteMonitor, FindsNoPathWhereThereIsNoInterface) {
  startOn(disconnected);
}

TEST_F(RouteMonitor, FindsNoPathWithoutADefaultRoute) {
  network.addCable("cable", "10.1.0.2/24");
  network.addCable("other", "fd00:1::2/64");
  network.ip("route add 10.2.0.0/16 via 10.1.0.1");
  startOn(disconnected);
}

TEST_F(RouteMonitor, DoesNotReportFromInsideStart) {
  start();
  EXPECT_TRUE(updates.empty());
  EXPECT_TRUE(reports(disconnected));
}

TEST_F(RouteMonitor, ReportsARouteThatComesAndGoes) {
  network.addCable("cable", "10.1.0.2/24");
  startOn(disconnected);
  const Seconds gain = timeUntil(viaCable, "route add default via 10.1.0.1");
  EXPECT_GE(gain, PathReports::gainDelay);
  EXPECT_TRUE(wasSoon());
  EXPECT_GE(timeUntil(disconnected, "route delete default"), PathReports::lossDelay);
}

TEST_F(RouteMonitor, FollowsAnIPv6Network) {
  network.addCable("cable", "fd00:1::2/64");
  startOn(disconnected);
  timeUntil(viaCable, "-6 route add default via fd00:1::1");
  timeUntil(disconnected, "-6 route delete default");
}

TEST_F(RouteMonitor, NoticesThatAnInterfaceGoesDown) {
  startOnCable();
  EXPECT_GE(timeUntil(disconnected, "link set cable down"), PathReports::lossDelay);
}

TEST_F(RouteMonitor, NoticesThatAnInterfaceGoesDownUnderAnIPv6Route) {
  network.addCable("cable", "fd00:1::2/64");
  network.ip("-6 route add default via fd00:1::1");
  startOn(viaCable);
  timeUntil(disconnected, "link set cable down");
}

TEST_F(RouteMonitor, NoticesThatTheCableIsPulledAndPluggedInAgain) {
  startOnCable();
  EXPECT_GE(timeUntil(disconnected, "link set cable-peer down"), PathReports::lossDelay);
  EXPECT_GE(timeUntil(viaCable, "link set cable-peer up"), PathReports::gainDelay);
}

TEST_F(RouteMonitor, NoticesThatAnAddressTakesItsRouteAlong) {
  startOnCable();
  timeUntil(disconnected, "address delete 10.1.0.2/24 dev cable");
}

TEST_F(RouteMonitor, NoticesThatAnInterfaceIsTakenAway) {
  startOnCable();
  timeUntil(disconnected, "link delete cable");
}

TEST_F(RouteMonitor, CountsNoRouteThatLeadsNowhere) {
  network.addCable("cable", "10.1.0.2/24");
  for (const char* const type : {"unreachable", "blackhole", "prohibit", "throw"}) {
    network.ip(std::string("route add ") + type + " default metric " + std::to_string(strlen(type)));
    network.ip(std::string("-6 route add ") + type + " default metric " + std::to_string(strlen(type)));
  }
  network.ip("route add default dev lo metric 50");
  startOn(disconnected);
}

TEST_F(RouteMonitor, CountsNoRouteOfAnotherTable) {
  network.addCable("cable", "10.1.0.2/24");
  network.ip("route add default via 10.1.0.1 table 100");
  network.ip("route add default via 10.1.0.1 table 1000");
  startOn(disconnected);
}

TEST_F(RouteMonitor, CountsNoRouteForATypeOfServiceOnly) {
  network.addCable("cable", "10.1.0.2/24");
  network.ip("route add default via 10.1.0.1 tos 0x10");
  startOn(disconnected);
}

// --- which path it is

TEST_F(RouteMonitor, GoesByTheLowestMetric) {
  startOnCable();
  pretendWiFi("wifi");
  network.addCable("wifi", "10.2.0.2/24");
  network.ip("route add default via 10.2.0.1 metric 600");
  const Seconds better = timeUntil(viaWiFi, "route add default via 10.2.0.1 metric 50");
  EXPECT_GE(better, PathReports::gainDelay);
  EXPECT_TRUE(wasSoon());
  const Seconds worse = timeUntil(viaCable, "route delete default metric 50");
  EXPECT_GE(worse, PathReports::gainDelay);
  EXPECT_TRUE(wasSoon());
}

TEST_F(RouteMonitor, PassesOverARouteWithoutCarrier) {
  startOnCable();
  pretendWiFi("wifi");
  network.addCable("wifi", "10.2.0.2/24");
  timeUntil(viaWiFi, "route add default via 10.2.0.1 metric 50");
  timeUntil(viaCable, "link set wifi-peer down");
  timeUntil(viaWiFi, "link set wifi-peer up");
}

TEST_F(RouteMonitor, PrefersIPv4) {
  pretendWiFi("wifi");
  network.addCable("wifi", "fd00:2::2/64");
  network.ip("-6 route add default via fd00:2::1 metric 1");
  startOn(viaWiFi);
  network.addCable("cable", "10.1.0.2/24");
  timeUntil(viaCable, "route add default via 10.1.0.1 metric 900");
  timeUntil(viaWiFi, "link set cable-peer down");
}

TEST_F(RouteMonitor, UsesTheHopsOfAMultipathRouteThatAreUsable) {
  pretendWiFi("wifi");
  network.addCable("wifi", "10.2.0.2/24");
  network.addCable("cable", "10.1.0.2/24");
  network.ip("route add default nexthop via 10.1.0.1 dev cable nexthop via 10.2.0.1 dev wifi");
  startOn({.satisfied = true, .usesWiFi = true, .usesWiredEthernet = true});
  timeUntil(viaCable, "link set wifi-peer down");
  EXPECT_GE(timeUntil(disconnected, "link set cable-peer down"), PathReports::lossDelay);
}

TEST_F(RouteMonitor, UsesTheHopsOfAnIPv6MultipathRouteThatAreUsable) {
  pretendWiFi("wifi");
  network.addCable("wifi", "fd00:2::2/64");
  network.addCable("cable", "fd00:1::2/64");
  network.ip("-6 route add default nexthop via fd00:1::1 dev cable nexthop via fd00:2::1 dev wifi");
  startOn({.satisfied = true, .usesWiFi = true, .usesWiredEthernet = true});
  timeUntil(viaCable, "link set wifi-peer down");
}

TEST_F(RouteMonitor, KnowsNextHopObjects) {
  pretendWiFi("wifi");
  network.addCable("wifi", "10.2.0.2/24");
  network.addCable("cable", "10.1.0.2/24");
  network.ip("nexthop add id 1 via 10.1.0.1 dev cable");
  network.ip("nexthop add id 2 via 10.2.0.1 dev wifi");
  network.ip("nexthop add id 3 group 1/2");
  network.ip("route add default nhid 3");
  startOn({.satisfied = true, .usesWiFi = true, .usesWiredEthernet = true});
  timeUntil(viaCable, "link set wifi-peer down");
  timeUntil(disconnected, "nexthop delete id 1");
}

TEST_F(RouteMonitor, KnowsNextHopObjectsThatRoutesDoNotSpellOut) {
  std::ofstream("/proc/sys/net/ipv4/nexthop_compat_mode") << "0" << std::flush;
  pretendWiFi("wifi");
  network.addCable("wifi", "10.2.0.2/24");
  network.addCable("cable", "10.1.0.2/24");
  network.ip("nexthop add id 1 via 10.1.0.1 dev cable");
  network.ip("nexthop add id 2 via 10.2.0.1 dev wifi");
  network.ip("nexthop add id 3 group 1");
  network.ip("route add default nhid 3");
  startOn(viaCable);
  timeUntil({.satisfied = true, .usesWiFi = true, .usesWiredEthernet = true},
            "nexthop replace id 3 group 1/2");
  timeUntil(viaCable, "link set wifi-peer down");
  timeUntil(disconnected, "nexthop delete id 3");
}

TEST_F(RouteMonitor, TellsOfAnotherGatewayOfTheSameType) {
  startOnCable();
  timeUntil(viaCable, "route replace default via 10.1.0.3 dev cable metric 100");
}

// --- what carries it

TEST_F(RouteMonitor, TakesAnOpenTunnelForAPathOfNoKnownType) {
  startOn(disconnected);
  const FileDescriptor tunnel = openTunnel("vpn", IFF_TUN);
  ASSERT_TRUE(tunnel) << std::strerror(errno);
  network.ip("link set vpn up");
  timeUntil(viaSomething, "route add default dev vpn");
}

TEST_F(RouteMonitor, TakesAClosedTunnelForNone) {
  network.ip("tuntap add vpn mode tun");
  network.ip("link set vpn up");
  network.ip("route add default dev vpn");
  startOn(disconnected);
}

TEST_F(RouteMonitor, LooksBeneathABridge) {
  network.ip("link add bridge type bridge");
  network.ip("link set bridge up");
  network.ip("address add 10.1.0.2/24 dev bridge");
  pretendWiFi("wifi");
  network.addCable("wifi", "10.2.0.2/24");
  network.ip("link set wifi master bridge");
  startOn(disconnected);
  timeUntil(viaWiFi, "route add default via 10.1.0.1");
  network.addCable("cable");
  // Only what leads beyond the bridge counts, and that is the cable beside an access point.
  network.ip("link set cable master bridge");
  network.ip("route replace default via 10.1.0.1 metric 5");
  timeUntil(viaCable, "route replace default via 10.1.0.3");
}

TEST_F(RouteMonitor, DoesNotKnowABridgeOfTunnelsOnly) {
  const FileDescriptor machine = openTunnel("machine", IFF_TAP);
  ASSERT_TRUE(machine) << std::strerror(errno);
  network.ip("link add bridge type bridge");
  network.ip("link set machine up master bridge");
  network.ip("link set bridge up");
  network.ip("address add 10.1.0.2/24 dev bridge");
  network.ip("route add default via 10.1.0.1");
  startOn(viaSomething);
}

/// Virtual devices, made over the pretended Wi-Fi "wifi" where they need one.
struct Kind {
  const char* name;
  std::vector<std::string> commands;
  NetworkPath path;
};

void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

struct RouteMonitorKind : RouteMonitor, ::testing::WithParamInterface<Kind> {};

TEST_P(RouteMonitorKind, IsTold) {
  pretendWiFi("wifi");
  network.addCable("wifi", "10.2.0.2/24");
  for (const auto& command : GetParam().commands) network.ip(command);
  network.ip("link set made up");
  network.ip("route add default dev made metric 5");
  startOn(GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    OfDevice, RouteMonitorKind,
    ::testing::Values(
        Kind{"macvlan", {"link add link wifi name made type macvlan"}, viaWiFi},
        Kind{"macvlan_over_bridge",
             {"link add bridge type bridge", "link set wifi master bridge", "link set bridge up",
              "link add link bridge name made type macvlan"},
             viaWiFi},
        Kind{"vxlan", {"link add made type vxlan id 5 dstport 4789 remote 10.2.0.9"}, viaSomething}),
    [](const auto& information) { return std::string(information.param.name); });

TEST_F(RouteMonitor, KnowsTheDevicesOfTheKernelItself) {
  const ScratchFolder mountPoint;
  ForkedProgram program([this, &mountPoint](const ForkedProgram::Say& say) {
    // As the kernel shows it to those in this network namespace.
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("devices", mountPoint.file("").c_str(), "sysfs", 0, nullptr) != 0) {
      return say("no mount");
    }
    EventLoop ownLoop;
    SystemBus ownBus(ownLoop);
    RouteMonitors ownMonitors(ownLoop, clock, ownBus, mountPoint.file("class/net"));
    const auto own = ownMonitors.makePathMonitor();
    network.addCable("cable", "10.1.0.2/24");
    network.ip("route add default via 10.1.0.1 dev cable metric 100");
    std::optional<NetworkPath> path;
    own->start(ownLoop.mainQueue(), [&path](NetworkPath update) { path = update; });
    comesTrue(ownLoop, [&path] { return path.has_value(); });
    say(path == viaCable ? "cable" : "something else");
  });
  EXPECT_EQ(program.line(), "cable");
  program.waitForEnd();
}

// --- when it is told

TEST_F(RouteMonitor, DoesNotReportALossThatIsOverInTime) {
  startOnCable();
  LinkNews news;
  network.ip("link set cable-peer down");
  news.awaitRunning("cable", false);
  // The monitor has heard of it, and then has read the routes: its delay began before this one.
  ASSERT_TRUE(isIdle(loop));
  bool over = false;
  const EventSource delay = loop.after(PathReports::gainDelay, [&over] { over = true; });
  loop.runUntil([&over] { return over; });
  ASSERT_TRUE(isIdle(loop));
  EXPECT_TRUE(updates.empty());
  timeUntil(viaCable, "link set cable-peer up");
  EXPECT_TRUE(updates.empty());
}

TEST_F(RouteMonitor, MayBeCancelledByItsOwnUpdate) {
  network.addCable("cable", "10.1.0.2/24");
  std::vector<NetworkPath> seen;
  monitor->start(*queue, [&](NetworkPath path) {
    seen.push_back(path);
    if (seen.size() == 2) monitor->cancel();
  });
  ASSERT_TRUE(comesTrue(loop, [&] { return seen.size() == 1; }));
  network.ip("route add default via 10.1.0.1");
  ASSERT_TRUE(comesTrue(loop, [&] { return seen.size() == 2; }));
  EXPECT_EQ(seen.back(), viaCable);
}

TEST_F(RouteMonitor, MayBeDestroyedByItsOwnUpdate) {
  bool gone = false;
  monitor->start(*queue, [&](NetworkPath) {
    monitor.reset();
    gone = true;
  });
  EXPECT_TRUE(comesTrue(loop, [&] { return gone; }));
}

TEST_F(RouteMonitor, MayBeDestroyedDuringAReading) {
  start();
  monitor.reset();
  settleQueue(loop);
  EXPECT_TRUE(updates.empty());
}

TEST_F(RouteMonitor, LeavesNoDescriptorBehind) {
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  startOn(disconnected);
  monitor->cancel();
  // What the loop itself keeps is there by now.
  const auto before = descriptors();
  monitor = monitors.makePathMonitor();
  startOn(disconnected);
  EXPECT_EQ(descriptors(), before + 1);
  monitor->cancel();
  EXPECT_EQ(descriptors(), before);
}

// --- where the kernel tells nothing

/// A process of its own that may open only so many descriptors more.
struct RouteMonitorWithoutDescriptors : RouteMonitor {
  /// Starts a monitor, and says each of its two first updates. Descriptors are there again after the first.
  void run(int descriptorsLeft, const ForkedProgram::Say& say) {
    EventLoop ownLoop;
    SystemBus ownBus(ownLoop);
    RouteMonitors ownMonitors(ownLoop, clock, ownBus, devices.file(""));
    std::vector<NetworkPath> seen;
    std::unique_ptr<ResourceLimit> limit;
    const auto onUpdate = [&](NetworkPath path) {
      limit.reset();
      seen.push_back(path);
    };
    // What the loop keeps, and what a sanitizer opens at the first use of a type, is there before.
    const auto first = ownMonitors.makePathMonitor();
    first->start(ownLoop.mainQueue(), onUpdate);
    comesTrue(ownLoop, [&seen] { return seen.size() == 1; });
    first->cancel();
    seen.clear();
    const auto own = ownMonitors.makePathMonitor();
    const int next = dup(STDERR_FILENO);
    close(next);
    limit = std::make_unique<ResourceLimit>(RLIMIT_NOFILE, static_cast<rlim_t>(next + descriptorsLeft));
    own->start(ownLoop.mainQueue(), onUpdate);
    if (!seen.empty()) say("too early");
    for (std::size_t number = 1; number <= 2; ++number) {
      if (!comesTrue(ownLoop, [&] { return seen.size() == number; })) return say("silence");
      say(::testing::PrintToString(seen.back()));
    }
  }
};

TEST_F(RouteMonitorWithoutDescriptors, TakesTheMachineForConnected) {
  ForkedProgram program([this](const ForkedProgram::Say& say) { run(0, say); });
  EXPECT_EQ(program.line(), "connected");
  program.end(SIGKILL);
  EXPECT_EQ(program.standardError(),
            "KestruneMenuClient: the routes cannot be read (Too many open files): changes of the network go "
            "unnoticed\n");
}

TEST_F(RouteMonitorWithoutDescriptors, ListensAsSoonAsItCan) {
  network.addCable("cable", "10.1.0.2/24");
  network.ip("route add default via 10.1.0.1");
  ForkedProgram program([this](const ForkedProgram::Say& say) { run(0, say); });
  EXPECT_EQ(program.line(), "connected");
  EXPECT_EQ(program.line(), "connected wired");
}

TEST_F(RouteMonitorWithoutDescriptors, TriesAgainToRead) {
  network.addCable("cable", "10.1.0.2/24");
  network.ip("route add default via 10.1.0.1");
  ForkedProgram program([this](const ForkedProgram::Say& say) { run(1, say); });
  EXPECT_EQ(program.line(), "connected");
  EXPECT_EQ(program.line(), "connected wired");
  program.waitForEnd();
  EXPECT_EQ(program.standardError(), "");
}

}  // namespace
}  // namespace kestrune::testing
