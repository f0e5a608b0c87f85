#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kestrune {

/// An interface, as the kernel describes it over rtnetlink.
struct NetworkInterface {
  unsigned index = 0;
  std::string name;
  unsigned hardwareType = 0;  ///< ARPHRD_…
  std::string kind;           ///< of a virtual device, such as "bridge"; empty for others
  bool usable = false;  ///< up, with carrier and past any authentication of the link; never the loopback
  unsigned lower = 0;   ///< index of the device that it is stacked on; 0 for none in this namespace
  unsigned master = 0;  ///< index of the bridge or bond that it is a member of; 0 for none
  unsigned activeMember = 0;  ///< of a bond: index of the member that carries the traffic; 0 where all do
};

/// A way out of this machine.
struct NextHop {
  unsigned interface = 0;  ///< index
  std::string gateway;     ///< address in the bytes of the wire; empty where the link itself is the way

  bool operator==(const NextHop&) const = default;
};

/// The interfaces of this network namespace and its default routes, as of one reading.
class RouteTable {
 public:
  /// Takes in RTM_NEWLINK, RTM_NEWROUTE and RTM_NEWNEXTHOP. Everything else, malformed messages among it, is
  /// left out.
  void add(const nlmsghdr& message);

  /// Whether a default route names its next hops by the numbers of objects that were not given yet.
  bool needsNextHopObjects() const;

  /// The usable next hops of the default route in use: the usable IPv4 one of the lowest metric in the main
  /// table, else the IPv6 one. Empty where there is none.
  std::vector<NextHop> defaultHops() const;

  /// By index.
  const std::map<unsigned, NetworkInterface>& interfaces() const { return links; }

 private:
  struct Route {
    bool ipv6 = false;
    std::uint32_t metric = 0;
    int preference = 0;               ///< of the IPv6 router: 1 high, 0 medium, -1 low
    std::vector<NextHop> hops;        ///< without those that the kernel has marked dead
    std::uint32_t nextHopObject = 0;  ///< set where the route says no more than this

    bool precedes(const Route& other) const;
  };
  struct NextHopObject {
    std::vector<NextHop> hops;
    std::vector<std::uint32_t> group;  ///< the objects that it stands for
  };

  void addInterface(const nlmsghdr& message);
  void addRoute(const nlmsghdr& message);
  void addNextHopObject(const nlmsghdr& message);
  std::vector<NextHop> usableHops(const Route& route) const;

  std::map<unsigned, NetworkInterface> links;
  std::vector<Route> defaultRoutes;
  std::map<std::uint32_t, NextHopObject> objects;
};

/// Whether `message`, of those that the kernel sends unasked, can mean another default route or another state
/// of one.
bool concernsDefaultRoute(const nlmsghdr& message);

}  // namespace kestrune
