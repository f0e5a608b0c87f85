#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>

#include "platform/linux/DeviceMedia.h"
#include "platform/linux/NetlinkMessages.h"
#include "platform/linux/RouteTable.h"
#include "tests/support/ScratchFolder.h"

namespace kestrune::testing {
namespace {

constexpr unsigned carrying = IFF_UP | IFF_LOWER_UP | IFF_RUNNING;

/// A message as the kernel sends it.
class Message {
 public:
  template <typename Header>
  Message(std::uint16_t type, const Header& header) {
    mnl_nlmsg_put_header(bytes.data())->nlmsg_type = type;
    std::memcpy(mnl_nlmsg_put_extra_header(get(), sizeof header), &header, sizeof header);
  }

  Message& number(std::uint16_t type, std::uint32_t value) {
    mnl_attr_put_u32(get(), type, value);
    return *this;
  }
  Message& byte(std::uint16_t type, std::uint8_t value) {
    mnl_attr_put_u8(get(), type, value);
    return *this;
  }
  Message& text(std::uint16_t type, const std::string& value) {
    mnl_attr_put_strz(get(), type, value.c_str());
    return *this;
  }
  Message& raw(std::uint16_t type, const std::string& value) {
    mnl_attr_put(get(), type, value.size(), value.data());
    return *this;
  }
  Message& nested(std::uint16_t type, const std::function<void(Message&)>& fill) {
    nlattr* const begin = mnl_attr_nest_start(get(), type);
    fill(*this);
    mnl_attr_nest_end(get(), begin);
    return *this;
  }

  operator const nlmsghdr&() const { return *reinterpret_cast<const nlmsghdr*>(bytes.data()); }
  std::size_t size() const { return static_cast<const nlmsghdr&>(*this).nlmsg_len; }

 private:
  nlmsghdr* get() { return reinterpret_cast<nlmsghdr*>(bytes.data()); }

  alignas(nlmsghdr) std::array<char, 4096> bytes{};
};

struct Hop {
  int interface;
  std::string gateway;
  unsigned flags = 0;
};

std::string multipath(const std::vector<Hop>& hops) {
  std::string bytes;
  for (const auto& hop : hops) {
    const nlattr gateway{static_cast<std::uint16_t>(sizeof(nlattr) + hop.gateway.size()), RTA_GATEWAY};
    rtnexthop header{};
    header.rtnh_len = static_cast<std::uint16_t>(sizeof header + gateway.nla_len);
    header.rtnh_flags = static_cast<std::uint8_t>(hop.flags);
    header.rtnh_ifindex = hop.interface;
    bytes.append(reinterpret_cast<const char*>(&header), sizeof header);
    bytes.append(reinterpret_cast<const char*>(&gateway), sizeof gateway);
    bytes += hop.gateway;
    bytes.resize((bytes.size() + 3) / 4 * 4);
  }
  return bytes;
}

Message makeLink(int index, const std::string& name, unsigned short type = ARPHRD_ETHER,
                 unsigned flags = carrying) {
  return std::move(
      Message(RTM_NEWLINK, ifinfomsg{AF_UNSPEC, 0, type, index, flags, 0}).text(IFLA_IFNAME, name));
}

void setKind(Message& message, const std::string& kind, const std::function<void(Message&)>& details = {}) {
  message.nested(IFLA_LINKINFO, [&](Message& description) {
    description.text(IFLA_INFO_KIND, kind);
    if (details) description.nested(IFLA_INFO_DATA, details);
  });
}

rtmsg defaultRoute(unsigned char family = AF_INET) {
  rtmsg header{};
  header.rtm_family = family;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_type = RTN_UNICAST;
  return header;
}

Message makeRoute(unsigned interface, std::uint32_t metric, const rtmsg& header = defaultRoute()) {
  Message message(RTM_NEWROUTE, header);
  message.number(RTA_TABLE, header.rtm_table).number(RTA_PRIORITY, metric).number(RTA_OIF, interface);
  return message;
}

struct RouteMonitorTable : ::testing::Test {
  RouteMonitorTable() {
    table.add(makeLink(2, "two"));
    table.add(makeLink(3, "three"));
  }

  std::vector<unsigned> interfacesInUse() const {
    std::vector<unsigned> indices;
    for (const auto& hop : table.defaultHops()) indices.push_back(hop.interface);
    return indices;
  }

  Medium mediumOf(unsigned interface) const {
    return DeviceMedia(devices.file(""), table.interfaces()).of(interface);
  }

  void pretend(const std::string& device, const std::string& uevent,
               const std::string& subfolder = {}) const {
    std::filesystem::create_directories(devices.file(device + "/" + subfolder));
    std::ofstream(devices.file(device + "/uevent")) << uevent;
  }

  RouteTable table;
  ScratchFolder devices;
};

using Indices = std::vector<unsigned>;

// --- routes

TEST_F(RouteMonitorTable, IsEmptyAtFirst) {
  EXPECT_EQ(interfacesInUse(), Indices{});
}

TEST_F(RouteMonitorTable, KnowsGateways) {
  table.add(makeRoute(2, 0).raw(RTA_GATEWAY, "addr"));
  EXPECT_EQ(table.defaultHops(), (std::vector<NextHop>{{2, "addr"}}));
}

TEST_F(RouteMonitorTable, PrefersTheLowerMetric) {
  table.add(makeRoute(2, 200));
  table.add(makeRoute(3, 100));
  EXPECT_EQ(interfacesInUse(), Indices{3});
}

TEST_F(RouteMonitorTable, PrefersTheFirstOfTheSameMetric) {
  table.add(makeRoute(3, 100));
  table.add(makeRoute(2, 100));
  EXPECT_EQ(interfacesInUse(), Indices{3});
}

TEST_F(RouteMonitorTable, PrefersIPv4ToIPv6OfALowerMetric) {
  table.add(makeRoute(2, 1, defaultRoute(AF_INET6)));
  table.add(makeRoute(3, 5000));
  EXPECT_EQ(interfacesInUse(), Indices{3});
}

TEST_F(RouteMonitorTable, GoesByThePreferenceOfTheRouterAmongEqualMetrics) {
  for (const auto& [preference, expected] : {std::pair{3, 2U}, {0, 2U}, {1, 3U}}) {
    table = {};
    table.add(makeLink(2, "two"));
    table.add(makeLink(3, "three"));
    table.add(makeRoute(2, 1024, defaultRoute(AF_INET6)).byte(RTA_PREF, 0));
    table.add(
        makeRoute(3, 1024, defaultRoute(AF_INET6)).byte(RTA_PREF, static_cast<std::uint8_t>(preference)));
    EXPECT_EQ(interfacesInUse(), Indices{expected}) << preference;
  }
}

TEST_F(RouteMonitorTable, LeavesOutWhatIsNoDefaultRoute) {
  rtmsg header = defaultRoute();
  header.rtm_dst_len = 1;
  table.add(makeRoute(2, 0, header));
  header = defaultRoute();
  header.rtm_tos = 16;
  table.add(makeRoute(2, 0, header));
  header = defaultRoute();
  header.rtm_table = RT_TABLE_LOCAL;
  table.add(makeRoute(2, 0, header));
  header = defaultRoute(AF_INET6);
  header.rtm_flags = RTM_F_CLONED;
  table.add(makeRoute(2, 0, header));
  table.add(makeRoute(2, 0, defaultRoute(AF_BRIDGE)));
  for (const unsigned char type : {RTN_UNREACHABLE, RTN_BLACKHOLE, RTN_PROHIBIT, RTN_THROW, RTN_LOCAL}) {
    header = defaultRoute();
    header.rtm_type = type;
    table.add(makeRoute(2, 0, header));
  }
  Message otherTable(RTM_NEWROUTE, defaultRoute());
  otherTable.number(RTA_TABLE, 1000).number(RTA_OIF, 2);
  table.add(otherTable);
  EXPECT_EQ(interfacesInUse(), Indices{});
}

TEST_F(RouteMonitorTable, LeavesOutWhatTheKernelHasMarkedDead) {
  for (const unsigned flag : {unsigned{RTNH_F_DEAD}, unsigned{RTNH_F_LINKDOWN}}) {
    rtmsg header = defaultRoute();
    header.rtm_flags = flag;
    table.add(makeRoute(2, 0, header));
  }
  EXPECT_EQ(interfacesInUse(), Indices{});
}

TEST_F(RouteMonitorTable, LeavesOutInterfacesThatCarryNothing) {
  constexpr unsigned up = IFF_UP;
  constexpr unsigned withoutCarrier = IFF_UP | IFF_RUNNING;
  constexpr unsigned notLetThrough = IFF_UP | IFF_LOWER_UP | IFF_DORMANT;
  unsigned index = 10;
  for (const unsigned flags : {0U, up, withoutCarrier, notLetThrough, carrying | IFF_LOOPBACK}) {
    table.add(makeLink(static_cast<int>(index), "x", ARPHRD_ETHER, flags));
    table.add(makeRoute(index++, 0));
  }
  table.add(makeRoute(99, 0));
  EXPECT_EQ(interfacesInUse(), Indices{});
}

TEST_F(RouteMonitorTable, TakesTheUsableHopsOfAMultipathRoute) {
  Message route(RTM_NEWROUTE, defaultRoute());
  route.raw(RTA_MULTIPATH, multipath({{2, "a"}, {3, "b", RTNH_F_LINKDOWN}, {99, "c"}, {3, "four"}}));
  table.add(route);
  EXPECT_EQ(table.defaultHops(), (std::vector<NextHop>{{2, "a"}, {3, "four"}}));
}

TEST_F(RouteMonitorTable, ResolvesNextHopObjects) {
  Message route(RTM_NEWROUTE, defaultRoute());
  route.number(RTA_NH_ID, 7);
  EXPECT_FALSE(table.needsNextHopObjects());
  table.add(route);
  EXPECT_TRUE(table.needsNextHopObjects());
  EXPECT_EQ(interfacesInUse(), Indices{});
  table.add(Message(RTM_NEWNEXTHOP, nhmsg{}).number(NHA_ID, 7).number(NHA_OIF, 3).raw(NHA_GATEWAY, "addr"));
  EXPECT_FALSE(table.needsNextHopObjects());
  EXPECT_EQ(table.defaultHops(), (std::vector<NextHop>{{3, "addr"}}));
}

TEST_F(RouteMonitorTable, ResolvesGroupsOfNextHopObjects) {
  const nexthop_grp group[] = {{7, 0, 0, 0}, {8, 0, 0, 0}, {9, 0, 0, 0}, {10, 0, 0, 0}};
  table.add(Message(RTM_NEWROUTE, defaultRoute()).number(RTA_NH_ID, 6));
  table.add(Message(RTM_NEWNEXTHOP, nhmsg{})
                .number(NHA_ID, 6)
                .raw(NHA_GROUP, {reinterpret_cast<const char*>(group), sizeof group}));
  table.add(Message(RTM_NEWNEXTHOP, nhmsg{}).number(NHA_ID, 7).number(NHA_OIF, 3));
  table.add(Message(RTM_NEWNEXTHOP, nhmsg{0, 0, 0, 0, RTNH_F_LINKDOWN}).number(NHA_ID, 8).number(NHA_OIF, 2));
  table.add(Message(RTM_NEWNEXTHOP, nhmsg{}).number(NHA_ID, 9));
  EXPECT_EQ(interfacesInUse(), Indices{3});
}

TEST_F(RouteMonitorTable, AsksForNoObjectsOfRoutesThatAreSpeltOut) {
  table.add(makeRoute(2, 0).number(RTA_NH_ID, 7));
  EXPECT_FALSE(table.needsNextHopObjects());
}

// --- bad input

TEST_F(RouteMonitorTable, LeavesOutMessagesThatAreCutShort) {
  Message link = makeLink(5, "five");
  setKind(link, "bond", [](Message& details) { details.number(IFLA_BOND_ACTIVE_SLAVE, 2); });
  const nexthop_grp group{7, 0, 0, 0};
  const std::vector<Message> messages{
      link, makeRoute(2, 0).raw(RTA_GATEWAY, "addr").byte(RTA_PREF, 1),
      Message(RTM_NEWROUTE, defaultRoute()).raw(RTA_MULTIPATH, multipath({{2, "a"}, {3, "b"}})),
      Message(RTM_NEWNEXTHOP, nhmsg{})
          .number(NHA_ID, 6)
          .raw(NHA_GROUP, {reinterpret_cast<const char*>(&group), sizeof group})};
  for (const auto& message : messages) {
    for (std::size_t length = sizeof(nlmsghdr); length < message.size(); ++length) {
      // In memory of just that size, so that a sanitizer sees a step beyond.
      const auto copy = std::make_unique<std::uint32_t[]>((length + 3) / 4);
      std::memcpy(copy.get(), &static_cast<const nlmsghdr&>(message), length);
      auto* const cut = reinterpret_cast<nlmsghdr*>(copy.get());
      cut->nlmsg_len = static_cast<std::uint32_t>(length);
      table.add(*cut);
      concernsDefaultRoute(*cut);
      table.defaultHops();
    }
  }
}

TEST_F(RouteMonitorTable, TakesNoMessageThatIsLongerThanWhatCame) {
  const Message first = makeLink(5, "five");
  const std::size_t size = first.size();
  for (const std::uint32_t length :
       {0U, 15U, static_cast<std::uint32_t>(size) + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFCU}) {
    std::vector<std::uint32_t> datagram(2 * size / sizeof(std::uint32_t));
    auto* const bytes = reinterpret_cast<char*>(datagram.data());
    std::memcpy(bytes, &static_cast<const nlmsghdr&>(first), size);
    std::memcpy(bytes + size, &static_cast<const nlmsghdr&>(first), size);
    reinterpret_cast<nlmsghdr*>(bytes + size)->nlmsg_len = length;
    int messages = 0;
    forEachNetlinkMessage(bytes, 2 * size, [&messages](const nlmsghdr&) {
      ++messages;
      return true;
    });
    EXPECT_EQ(messages, 1) << length;
  }
}

TEST_F(RouteMonitorTable, SurvivesRubbish) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    Message message(RTM_NEWROUTE, defaultRoute());
    if (round % 3 == 1) message = makeLink(static_cast<int>(random() % 8), "x");
    if (round % 3 == 2) message = Message(RTM_NEWNEXTHOP, nhmsg{});
    std::string bytes(random() % 64, '\0');
    for (auto& each : bytes) each = static_cast<char>(random());
    message.raw(static_cast<std::uint16_t>(random() % 64), bytes);
    const auto copy = std::make_unique<std::uint32_t[]>((message.size() + 3) / 4);
    std::memcpy(copy.get(), &static_cast<const nlmsghdr&>(message), message.size());
    // A wrong length of an attribute among it, now and then.
    auto* const words = reinterpret_cast<std::uint16_t*>(copy.get());
    const std::size_t header = sizeof(nlmsghdr) / sizeof *words;
    const std::size_t place = header + random() % (message.size() / sizeof *words - header);
    if (random() % 2 == 0) words[place] = static_cast<std::uint16_t>(random());
    table.add(*reinterpret_cast<const nlmsghdr*>(copy.get()));
  }
  for (const auto& [index, link] : table.interfaces()) mediumOf(index);
  table.defaultHops();
}

TEST_F(RouteMonitorTable, EndsAMultipathRouteAtAWrongLength) {
  std::string hops = multipath({{2, "four"}, {3, "four"}});
  hops[hops.size() / 2] = 3;
  table.add(Message(RTM_NEWROUTE, defaultRoute()).raw(RTA_MULTIPATH, hops));
  EXPECT_EQ(interfacesInUse(), Indices{2});
}

// --- which messages matter

TEST_F(RouteMonitorTable, KnowsWhatConcernsTheDefaultRoute) {
  rtmsg host = defaultRoute();
  host.rtm_dst_len = 32;
  rtmsg gone = defaultRoute(AF_INET6);
  gone.rtm_type = RTN_UNREACHABLE;
  const ifinfomsg bridgePort{AF_BRIDGE, 0, ARPHRD_ETHER, 2, carrying, 0};
  EXPECT_TRUE(concernsDefaultRoute(makeLink(2, "two")));
  EXPECT_TRUE(concernsDefaultRoute(Message(RTM_DELLINK, ifinfomsg{})));
  EXPECT_TRUE(concernsDefaultRoute(makeRoute(2, 0)));
  EXPECT_TRUE(concernsDefaultRoute(Message(RTM_DELROUTE, gone)));
  EXPECT_TRUE(concernsDefaultRoute(Message(RTM_DELADDR, ifaddrmsg{})));
  EXPECT_TRUE(concernsDefaultRoute(Message(RTM_NEWNEXTHOP, nhmsg{})));
  EXPECT_TRUE(concernsDefaultRoute(Message(RTM_DELNEXTHOP, nhmsg{})));

  EXPECT_FALSE(concernsDefaultRoute(makeLink(2, "two").raw(IFLA_WIRELESS, "a scan has ended")));
  EXPECT_FALSE(concernsDefaultRoute(Message(RTM_NEWLINK, bridgePort)));
  EXPECT_FALSE(concernsDefaultRoute(makeRoute(2, 0, host)));
  EXPECT_FALSE(concernsDefaultRoute(Message(RTM_NEWADDR, ifaddrmsg{})));
  EXPECT_FALSE(concernsDefaultRoute(Message(NLMSG_NOOP, std::uint32_t{})));
}

// --- media

TEST_F(RouteMonitorTable, TakesEthernetForACable) {
  EXPECT_EQ(mediumOf(2), Medium::wired);
}

TEST_F(RouteMonitorTable, DoesNotKnowWhatIsNotThere) {
  EXPECT_EQ(mediumOf(99), Medium::unknown);
}

TEST_F(RouteMonitorTable, TellsWiFiByEachOfItsSigns) {
  table.add(makeLink(4, "four"));
  pretend("two", "", "phy80211");
  pretend("three", "INTERFACE=three\nIFINDEX=3\n", "wireless");
  pretend("four", "DEVTYPE=wlan\nINTERFACE=four\nIFINDEX=4\n");
  EXPECT_EQ(mediumOf(2), Medium::wiFi);
  EXPECT_EQ(mediumOf(3), Medium::wiFi);
  EXPECT_EQ(mediumOf(4), Medium::wiFi);
}

TEST_F(RouteMonitorTable, TellsCellularByEachOfItsSigns) {
  table.add(makeLink(4, "four", ARPHRD_RAWIP));
  Message modem = makeLink(5, "five", ARPHRD_NONE);
  setKind(modem, "wwan");
  table.add(modem);
  Message channel = makeLink(6, "six").number(IFLA_LINK, 2);
  setKind(channel, "rmnet");
  table.add(channel);
  pretend("two", "DEVTYPE=wwan");
  table.add(makeLink(7, "seven", ARPHRD_PPP));
  pretend("seven", "DEVTYPE=wwan\n");
  for (const unsigned index : {2U, 4U, 5U, 6U, 7U}) EXPECT_EQ(mediumOf(index), Medium::cellular) << index;
}

TEST_F(RouteMonitorTable, KnowsNoMediumOfTunnels) {
  unsigned index = 10;
  for (const char* const kind : {"tun", "vxlan", "geneve", "gretap", "wireguard", "ovpn"}) {
    const bool isEthernet = index < 14;
    Message tunnel = makeLink(static_cast<int>(index), kind, isEthernet ? ARPHRD_ETHER : ARPHRD_NONE);
    setKind(tunnel, kind);
    table.add(tunnel);
    EXPECT_EQ(mediumOf(index++), Medium::unknown) << kind;
  }
  table.add(makeLink(20, "ppp0", ARPHRD_PPP));
  pretend("ppp0", "DEVTYPE=ppp\n");
  EXPECT_EQ(mediumOf(20), Medium::unknown);
}

TEST_F(RouteMonitorTable, DoesNotTakeABluetoothNetworkForACable) {
  pretend("two", "DEVTYPE=bluetooth\n");
  EXPECT_EQ(mediumOf(2), Medium::unknown);
}

TEST_F(RouteMonitorTable, LooksBeneathWhatIsStacked) {
  pretend("two", "DEVTYPE=wlan\n");
  Message vlan = makeLink(4, "four").number(IFLA_LINK, 2);
  setKind(vlan, "vlan");
  table.add(vlan);
  Message tunnelOverVlan = makeLink(5, "five", ARPHRD_IPGRE).number(IFLA_LINK, 4);
  setKind(tunnelOverVlan, "gre");
  table.add(tunnelOverVlan);
  EXPECT_EQ(mediumOf(5), Medium::wiFi);
}

TEST_F(RouteMonitorTable, DoesNotLookIntoAnotherNamespace) {
  pretend("two", "DEVTYPE=wlan\n");
  Message macvlan = makeLink(4, "four").number(IFLA_LINK, 2).number(IFLA_LINK_NETNSID, 0);
  setKind(macvlan, "macvlan");
  table.add(macvlan);
  EXPECT_EQ(mediumOf(4), Medium::unknown);
}

TEST_F(RouteMonitorTable, TakesBothEndsOfAPairForCables) {
  for (const int end : {10, 11}) {
    Message pair = makeLink(end, "end").number(IFLA_LINK, end == 10 ? 11 : 10);
    setKind(pair, "veth");
    table.add(pair);
  }
  EXPECT_EQ(mediumOf(10), Medium::wired);
  EXPECT_EQ(mediumOf(11), Medium::wired);
}

TEST_F(RouteMonitorTable, EndsInARingOfStackedDevices) {
  for (const int index : {10, 11}) {
    Message stacked =
        makeLink(index, "ring").number(IFLA_LINK, index == 10 ? 11 : 10).number(IFLA_MASTER, 10);
    setKind(stacked, "macvlan");
    table.add(stacked);
  }
  EXPECT_EQ(mediumOf(10), Medium::unknown);
}

TEST_F(RouteMonitorTable, LooksAtTheMembersOfABridgeThatCarry) {
  Message bridge = makeLink(10, "bridge");
  setKind(bridge, "bridge");
  table.add(bridge);
  EXPECT_EQ(mediumOf(10), Medium::unknown);
  pretend("radio", "DEVTYPE=wlan\n");
  table.add(makeLink(11, "radio").number(IFLA_MASTER, 10));
  EXPECT_EQ(mediumOf(10), Medium::wiFi);
  table.add(makeLink(12, "cable", ARPHRD_ETHER, IFF_UP).number(IFLA_MASTER, 10));
  EXPECT_EQ(mediumOf(10), Medium::wiFi);
  table.add(makeLink(12, "cable").number(IFLA_MASTER, 10));
  EXPECT_EQ(mediumOf(10), Medium::wired);
}

TEST_F(RouteMonitorTable, GoesByTheActiveMemberOfABond) {
  pretend("radio", "DEVTYPE=wlan\n");
  table.add(makeLink(11, "radio").number(IFLA_MASTER, 10));
  table.add(makeLink(12, "cable").number(IFLA_MASTER, 10));
  for (const auto& [active, medium] : {std::pair{11U, Medium::wiFi}, {12U, Medium::wired}}) {
    Message bond = makeLink(10, "bond");
    setKind(bond, "bond",
            [index = active](Message& details) { details.number(IFLA_BOND_ACTIVE_SLAVE, index); });
    table.add(bond);
    EXPECT_EQ(mediumOf(10), medium);
  }
}

TEST_F(RouteMonitorTable, DoesNotBelieveAFolderOfAnotherNamespace) {
  pretend("two", "DEVTYPE=wlan\nINTERFACE=two\nIFINDEX=7\n");
  EXPECT_EQ(mediumOf(2), Medium::wired);
}

}  // namespace
}  // namespace kestrune::testing
