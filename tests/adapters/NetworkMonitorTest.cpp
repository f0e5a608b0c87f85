#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "adapters/network/RouteLookup.h"
#include "tests/adapters/NetworkRig.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/RefusedCall.h"
#include "tests/rig/ResourceLimit.h"

namespace kestrune::testing {
namespace {

using Commands = std::vector<std::string>;

/// One case of `check`: ip(8) sets up a network by `commands`, and the monitor must report `path`. Then ip(8)
/// runs `change`, and the monitor must report `after`. If `change` is empty, the case ends after `path`.
struct Network {
  const char* name;
  Commands commands;
  NetworkPath path;
  Commands change{};
  NetworkPath after{};
};

void check(const std::vector<Network>& networks) {
  for (const auto& [name, commands, path, change, after] : networks) {
    SCOPED_TRACE(name);
    MonitoredNetwork machine;
    Commands all = commands;
    all.insert(all.end(), change.begin(), change.end());
    if (::testing::PrintToString(all).find("::") != std::string::npos) machine.useIPv6();
    machine.network.ip(commands);
    machine.startOn(path);
    if (change.empty()) continue;
    machine.network.ip(change);
    EXPECT_TRUE(machine.becomes(after));
  }
}

const std::string viaGateway = "route add default via 10.1.0.1 metric 100";
const std::string viaIPv6Gateway = "route add default via fd00:1::1 metric 100";

TEST(NetworkPaths, AreWhatTheKernelRoutes) {
  check({
      {"route_elsewhere", {"route add 10.9.0.0/16 via 10.1.0.1"}, disconnected},
      {"ipv4_through_an_ipv6_gateway", {"route add default via inet6 fd00:1::1"}, viaCable},
      {"ipv4_before_ipv6", {viaGateway, "route add default via fd00:2::1 metric 1"}, viaCable},
      {"ipv6_where_ipv4_has_no_carrier",
       {viaGateway, "route add default via fd00:2::1", "link set cable-peer down"},
       viaWiFi},
      {"other_type_of_service", {"route add default via 10.1.0.1 tos 0x10"}, disconnected},
      {"loopback", {"route add default dev lo"}, disconnected},
      {"no_carrier", {viaGateway, viaIPv6Gateway, "link set cable-peer down"}, disconnected},
      {"default_table", {"route add default via 10.1.0.1 table default"}, viaCable},
      {"unreachable_by_rule", {viaGateway, "rule add unreachable"}, disconnected},
      {"halves", {"route add 0.0.0.0/1 via 10.1.0.1", "route add 128.0.0.0/1 via 10.1.0.1"}, viaCable},
      {"halves_before_the_default",
       {viaGateway, "route add 0.0.0.0/1 via 10.2.0.1", "route add 128.0.0.0/1 via 10.2.0.1"},
       viaWiFi},
      {"ipv6_global_part", {"route add 2000::/3 via fd00:1::1"}, viaCable},
      {"multipath",
       {"route add default nexthop via 10.1.0.1 dev cable nexthop via 10.2.0.1 dev wifi",
        "link set cable down"},
       viaWiFi},
  });
}

TEST(NetworkPaths, RejectRoutesAreNoPath) {
  std::vector<Network> networks;
  for (const char* const type : {"unreachable", "blackhole", "prohibit", "throw"}) {
    const std::string reject = std::string("route add ") + type;
    networks.push_back(
        {type, {viaGateway, viaIPv6Gateway, reject + " default", reject + " ::/0 metric 5"}, disconnected});
  }
  networks.push_back(
      {"below_a_usable_one", {viaGateway, "route add unreachable default metric 200"}, viaCable});
  networks.push_back({"of_ipv4_only", {viaIPv6Gateway, "route add blackhole default"}, viaCable});
  check(networks);
}

TEST(NetworkPaths, EachChangeIsReported) {
  const Commands ipv4{viaGateway};
  const Commands inTable{"route add default via 10.1.0.1 table 100"};
  const std::string pull = "link set cable-peer down";
  check({
      {"route_comes", {}, disconnected, {viaGateway}, viaCable},
      {"ipv6_route_comes", {}, disconnected, {viaIPv6Gateway}, viaCable},
      {"better_route_comes", ipv4, viaCable, {"route add default via 10.2.0.1 metric 50"}, viaWiFi},
      {"interface_goes_down", ipv4, viaCable, {"link set cable down"}, disconnected},
      {"interface_goes_down_under_ipv6", {viaIPv6Gateway}, viaCable, {"link set cable down"}, disconnected},
      {"interface_goes", ipv4, viaCable, {"link delete cable"}, disconnected},
      {"cable_is_pulled", ipv4, viaCable, {pull}, disconnected},
      {"cable_comes", {viaGateway, pull}, disconnected, {"link set cable-peer up"}, viaCable},
      {"address_goes", ipv4, viaCable, {"address delete 10.1.0.2/24 dev cable"}, disconnected},
      {"rule_comes", inTable, disconnected, {"rule add lookup 100"}, viaCable},
      {"next_hop_object_goes",
       {"nexthop add id 1 via 10.1.0.1 dev cable", "route add default nhid 1"},
       viaCable,
       {"nexthop delete id 1"},
       disconnected},
      {"gateway_changes", ipv4, viaCable, {"route replace default via 10.1.0.3 metric 100"}, viaCable},
      {"ipv6_source_changes",
       {viaIPv6Gateway, "address add 2001:db8::2/64 dev cable nodad"},
       viaCable,
       {"address change 2001:db8::2/64 dev cable preferred_lft 0"},
       viaCable},
  });
}

/// In each network, the default route leads through a virtual device with the name "made".
TEST(NetworkPaths, StackedDevicesHaveTheMediumBeneath) {
  const auto through = [](const char* name, Commands commands, const NetworkPath& path) {
    commands.insert(commands.end(), {"link set made up", "route add default dev made"});
    return Network{name, std::move(commands), path};
  };
  check({
      through("macvlan", {"link add link wifi name made type macvlan"}, viaWiFi),
      through("vxlan", {"link add made type vxlan id 5 dstport 4789 remote 10.2.0.9"}, viaSomething),
      through("bridge", {"link add made type bridge", "link set wifi master made"}, viaWiFi),
  });
}

struct NetworkMonitorTest : ::testing::Test, MonitoredNetwork {
  /// Opens a tun device as a VPN program does. The device has a carrier while the descriptor is open.
  static FileDescriptor openTunnel(const char* name) {
    FileDescriptor tunnel(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    ifreq request{};
    std::strncpy(request.ifr_name, name, sizeof request.ifr_name - 1);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (ioctl(tunnel.get(), TUNSETIFF, &request) != 0) tunnel.reset();
    return tunnel;
  }
};

TEST_F(NetworkMonitorTest, MediumOfAVPNIsUnknown) {
  network.ip({"route add default via 10.2.0.1"});
  startOn(viaWiFi);
  if (access("/dev/net/tun", R_OK | W_OK) != 0 && std::getenv("KESTRUNE_NO_SKIPS") == nullptr) {
    GTEST_SKIP() << "needs /dev/net/tun, which this machine refuses";
  }
  const FileDescriptor tunnel = openTunnel("vpn");
  ASSERT_TRUE(tunnel) << std::strerror(errno);
  network.ip({"link set vpn up", "route add 0.0.0.0/1 dev vpn", "route add 128.0.0.0/1 dev vpn"});
  EXPECT_TRUE(becomes(viaSomething));
  network.ip({"link delete vpn"});
  EXPECT_TRUE(becomes(viaWiFi));
}

TEST_F(NetworkMonitorTest, ReplacedNextHopObjectIsReported) {
  std::ofstream("/proc/sys/net/ipv4/nexthop_compat_mode") << "0" << std::flush;
  network.ip({"nexthop add id 1 via 10.1.0.1 dev cable", "route add default nhid 1"});
  startOn(viaCable);
  network.ip({"nexthop replace id 1 via 10.2.0.1 dev wifi"});
  EXPECT_TRUE(becomes(viaWiFi));
}

TEST_F(NetworkMonitorTest, NewIPv6RuleIsReported) {
  useIPv6();
  network.ip({"route add default via fd00:1::1 table 100"});
  startOn(disconnected);
  network.ip({"rule add lookup 100"}, "-6");
  EXPECT_TRUE(becomes(viaCable));
}

/// A route that differs from the reported route only in its source address must be reported. The delays of
/// this monitor are those of the client, not the delays of zero in NetworkRig. So the monitor looks up the
/// route only after all commands of the second `network.ip`.
TEST_F(NetworkMonitorTest, NewSourceAddressIsReported) {
  network.ip({viaGateway});
  monitor.emplace(loop, clock, bus, devices.file(""));
  startOn(viaCable);
  network.ip({"address delete 10.1.0.2/24 dev cable", "address add 10.1.0.7/24 dev cable", viaGateway});
  EXPECT_TRUE(becomes(viaCable));
}

/// The monitor closes its netlink socket at the first message of a burst, and looks up the route 0.25 s
/// later. The burst must cost few iterations of the loop, and its last change must be reported.
TEST_F(NetworkMonitorTest, BurstOfMessagesCostsAFewTurnsOfTheLoop) {
  network.ip({viaGateway});
  monitor.emplace(loop, clock, bus, devices.file(""));
  startOn(viaCable);
  const auto turns = [this] {
    std::uint64_t count = 0;
    sd_event_get_iteration(loop.event(), &count);
    return count;
  };
  const std::uint64_t before = turns();
  Commands burst;
  for (int mtu = 2000; mtu < 3000; ++mtu) burst.push_back("link set wifi mtu " + std::to_string(mtu));
  burst.emplace_back("route add default via 10.2.0.1 metric 50");
  network.ip(burst);
  EXPECT_TRUE(becomes(viaWiFi));
  EXPECT_LT(turns() - before, 50U);
}

TEST_F(NetworkMonitorTest, UnrelatedChangesAreNotReported) {
  useIPv6();
  network.ip({viaGateway});
  startOn(viaCable);
  for (const char* const words :
       {"route add 10.9.0.0/16 via 10.1.0.1", "route add default via 10.1.0.1 table 9",
        "address add 10.1.0.3/24 dev cable", "route add fd00:9::/64 dev cable", "link set wifi mtu 1400",
        "link set wifi down", "neighbor add 10.1.0.1 lladdr 02:00:00:00:00:01 dev cable",
        "route add default via fd00:1::1", "route delete default via fd00:1::1"}) {
    network.ip({words});
    ASSERT_TRUE(isIdle(loop));
  }
  network.ip({"route delete default"});
  EXPECT_TRUE(becomes(disconnected));
  EXPECT_EQ(updates, std::vector{disconnected});
}

TEST_F(NetworkMonitorTest, ReadsSysfs) {
  const ScratchFolder mountPoint;
  ForkedProgram program([&](const ForkedProgram::Say& say) {
    // A sysfs shows the devices of the network namespace in which it was mounted. So mount one here.
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("devices", mountPoint.file("").c_str(), "sysfs", 0, nullptr) != 0) {
      return say("no mount");
    }
    EventLoop ownLoop;
    SystemBus ownBus(ownLoop);
    NetworkMonitor own(ownLoop, clock, ownBus, mountPoint.file("class/net"));
    network.ip({viaGateway});
    std::optional<NetworkPath> path;
    own.start(ownLoop.mainQueue(), [&path](NetworkPath update) { path = update; });
    comesTrue(ownLoop, [&path] { return path.has_value(); });
    say(path ? ::testing::PrintToString(*path) : "silence");
  });
  EXPECT_EQ(program.line(), "connected wired");
  program.waitForEnd();
}

TEST_F(NetworkMonitorTest, DestroyedMonitorLeavesNoDescriptor) {
  startOn(disconnected);
  monitor->cancel();
  const auto before = openDescriptors();  // includes descriptors that the loop keeps open
  monitor.emplace(loop, clock, bus, devices.file(""));
  start();
  monitor.reset();  // before the first update is delivered
  settleQueue(loop);
  EXPECT_TRUE(updates.empty());
  monitor.emplace(loop, clock, bus, devices.file(""));
  bool gone = false;
  monitor->start(loop.mainQueue(), [&](NetworkPath) {
    monitor.reset();
    gone = true;
  });
  EXPECT_TRUE(comesTrue(loop, [&] { return gone; }));
  EXPECT_EQ(openDescriptors(), before);
}

// --- no free descriptors, and refusals by the kernel

/// Starts a monitor while no descriptor is free. When its first update comes, makes descriptors free again.
/// Calls `say` with the monitor's first two updates.
void runWithoutDescriptors(MonitoredNetwork& rig, const ForkedProgram::Say& say) {
  EventLoop loop;
  SystemBus bus(loop);
  std::vector<NetworkPath> seen;
  std::unique_ptr<ResourceLimit> limit;
  const auto start = [&](PathMonitor& monitor) {
    seen.clear();
    monitor.start(loop.mainQueue(), [&](NetworkPath path) {
      limit.reset();
      seen.push_back(path);
    });
  };
  // Run a first monitor without a limit on descriptors. The loop and a sanitizer open descriptors at their
  // first use and keep them. Under the limit for the second monitor, they could not open any.
  NetworkMonitor first(loop, rig.clock, bus, rig.devices.file(""));
  start(first);
  comesTrue(loop, [&seen] { return seen.size() == 1; });
  first.cancel();
  NetworkMonitor second(loop, rig.clock, bus, rig.devices.file(""));
  const int next = dup(STDERR_FILENO);
  close(next);
  limit = std::make_unique<ResourceLimit>(RLIMIT_NOFILE, static_cast<rlim_t>(next));
  start(second);
  if (!seen.empty()) say("too early");
  for (std::size_t number = 1; number <= 2; ++number) {
    if (!comesTrue(loop, [&] { return seen.size() == number; })) return say("silence");
    say(::testing::PrintToString(seen.back()));
  }
}

TEST_F(NetworkMonitorTest, CountsAsConnectedWithoutASocketAndAsksAgain) {
  network.ip({viaGateway});
  ForkedProgram program([this](const ForkedProgram::Say& say) { runWithoutDescriptors(*this, say); });
  EXPECT_EQ(program.line(), "connected");
  EXPECT_EQ(program.line(), "connected wired");
  program.waitForEnd();
  EXPECT_EQ(
      program.standardError(),
      "KestruneMenuClient: cannot read routes over netlink (Too many open files): network changes are not "
      "noticed\n");
}

TEST_F(NetworkMonitorTest, ReportsThatTheKernelRefusesToAnswer) {
  ForkedProgram program([](const ForkedProgram::Say& say) {
    refuseCall(SYS_sendto, EPERM);
    say(lookUpRoute("").reason());
  });
  EXPECT_EQ(program.line(), "Operation not permitted");
}

TEST_F(NetworkMonitorTest, ReportsThatTheKernelRefusesToDescribeTheInterfaceOfAnIPv6Route) {
  useIPv6();
  network.ip({"route add default via fd00:1::1"});
  ForkedProgram program([](const ForkedProgram::Say& say) {
    refuseSending(NLMSG_LENGTH(sizeof(ifinfomsg)), ENOBUFS);
    const auto answer = lookUpRoute("");
    say(answer ? "answered" : answer.reason());
  });
  EXPECT_EQ(program.line(), "No buffer space available");
}

TEST_F(NetworkMonitorTest, KernelWithoutIPv6CountsAsNoIPv6Route) {
  ForkedProgram program([](const ForkedProgram::Say& say) {
    // Only the request for the IPv6 route has this length.
    refuseSending(NLMSG_LENGTH(sizeof(rtmsg)) + RTA_LENGTH(sizeof(in6_addr)), EOPNOTSUPP);
    const auto answer = lookUpRoute("");
    say(!answer ? answer.reason() : (*answer).path.satisfied ? "path" : "no path");
  });
  EXPECT_EQ(program.line(), "no path");
}

}  // namespace
}  // namespace kestrune::testing
