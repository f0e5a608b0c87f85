#include "platform/linux/RouteTable.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <optional>
#include <tuple>

namespace kestrune {

namespace {

constexpr unsigned unusableHop = RTNH_F_DEAD | RTNH_F_LINKDOWN;

template <typename Use>
int visit(const nlattr* attribute, void* use) {
  (*static_cast<Use*>(use))(mnl_attr_get_type(attribute), *attribute);
  return MNL_CB_OK;
}

template <typename Use>
void forEachAttribute(const nlmsghdr& message, std::size_t headerSize, Use use) {
  mnl_attr_parse(&message, static_cast<unsigned>(headerSize), &visit<Use>, &use);
}

template <typename Use>
void forEachAttribute(const void* attributes, std::size_t size, Use use) {
  mnl_attr_parse_payload(attributes, size, &visit<Use>, &use);
}

template <typename Use>
void forEachNested(const nlattr& parent, Use use) {
  mnl_attr_parse_nested(&parent, &visit<Use>, &use);
}

/// The fixed part at the beginning of a message; absent when the message is too short for it.
template <typename Header>
std::optional<Header> headerOf(const nlmsghdr& message) {
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(Header)) return std::nullopt;
  Header header{};
  std::memcpy(&header, mnl_nlmsg_get_payload(&message), sizeof header);
  return header;
}

std::string bytesOf(const nlattr& attribute) {
  return {static_cast<const char*>(mnl_attr_get_payload(&attribute)), mnl_attr_get_payload_len(&attribute)};
}

std::string textOf(const nlattr& attribute) {
  const std::string bytes = bytesOf(attribute);
  return bytes.substr(0, bytes.find('\0'));
}

std::uint32_t numberOf(const nlattr& attribute) {
  std::uint32_t number = 0;
  if (mnl_attr_get_payload_len(&attribute) < sizeof number) return 0;
  std::memcpy(&number, mnl_attr_get_payload(&attribute), sizeof number);
  return number;
}

std::vector<NextHop> multipathHops(const nlattr& attribute) {
  std::vector<NextHop> hops;
  const std::string bytes = bytesOf(attribute);
  rtnexthop header{};
  for (std::size_t at = 0; at + sizeof header <= bytes.size(); at += RTNH_ALIGN(header.rtnh_len)) {
    std::memcpy(&header, bytes.data() + at, sizeof header);
    if (header.rtnh_len < sizeof header || at + header.rtnh_len > bytes.size()) break;
    if ((header.rtnh_flags & unusableHop) != 0) continue;
    NextHop hop{static_cast<unsigned>(header.rtnh_ifindex), {}};
    const char* const attributes = bytes.data() + at + sizeof header;
    forEachAttribute(attributes, header.rtnh_len - sizeof header, [&hop](unsigned type, const nlattr& each) {
      if (type == RTA_GATEWAY || type == RTA_VIA) hop.gateway = bytesOf(each);
    });
    hops.push_back(std::move(hop));
  }
  return hops;
}

bool isDefaultRoute(const nlmsghdr& message) {
  const auto header = headerOf<rtmsg>(message);
  if (!header || (header->rtm_family != AF_INET && header->rtm_family != AF_INET6)) return false;
  if (header->rtm_dst_len != 0 || header->rtm_tos != 0 || (header->rtm_flags & RTM_F_CLONED) != 0)
    return false;
  std::uint32_t table = header->rtm_table;
  forEachAttribute(message, sizeof(rtmsg), [&table](unsigned type, const nlattr& attribute) {
    if (type == RTA_TABLE) table = numberOf(attribute);
  });
  return table == RT_TABLE_MAIN;
}

bool isInterfaceState(const nlmsghdr& message) {
  const auto header = headerOf<ifinfomsg>(message);
  // Ports of a bridge are told of a second time, as ports.
  if (!header || header->ifi_family != AF_UNSPEC) return false;
  bool isWirelessEvent = false;  // such as the end of each scan
  forEachAttribute(message, sizeof(ifinfomsg), [&isWirelessEvent](unsigned type, const nlattr&) {
    if (type == IFLA_WIRELESS) isWirelessEvent = true;
  });
  return !isWirelessEvent;
}

}  // namespace

void RouteTable::add(const nlmsghdr& message) {
  switch (message.nlmsg_type) {
    case RTM_NEWLINK:
      addInterface(message);
      break;
    case RTM_NEWROUTE:
      addRoute(message);
      break;
    case RTM_NEWNEXTHOP:
      addNextHopObject(message);
      break;
    default:
      break;
  }
}

void RouteTable::addInterface(const nlmsghdr& message) {
  const auto header = headerOf<ifinfomsg>(message);
  if (!header || header->ifi_family != AF_UNSPEC) return;
  constexpr unsigned wanted = IFF_UP | IFF_LOWER_UP | IFF_RUNNING;
  NetworkInterface link;
  link.index = static_cast<unsigned>(header->ifi_index);
  link.hardwareType = header->ifi_type;
  link.usable = (header->ifi_flags & (wanted | IFF_LOOPBACK)) == wanted;
  bool lowerIsElsewhere = false;
  const auto readDetails = [&link](unsigned type, const nlattr& attribute) {
    if (type == IFLA_BOND_ACTIVE_SLAVE) link.activeMember = numberOf(attribute);
  };
  const auto readDescription = [&](unsigned type, const nlattr& attribute) {
    if (type == IFLA_INFO_KIND) link.kind = textOf(attribute);
    // Comes after the kind; each kind has details of its own under the same numbers.
    if (type == IFLA_INFO_DATA && link.kind == "bond") forEachNested(attribute, readDetails);
  };
  forEachAttribute(message, sizeof(ifinfomsg), [&](unsigned type, const nlattr& attribute) {
    if (type == IFLA_IFNAME) link.name = textOf(attribute);
    if (type == IFLA_LINK) link.lower = numberOf(attribute);
    if (type == IFLA_LINK_NETNSID) lowerIsElsewhere = true;
    if (type == IFLA_MASTER) link.master = numberOf(attribute);
    if (type == IFLA_LINKINFO) forEachNested(attribute, readDescription);
  });
  // The index is one of the other namespace.
  if (lowerIsElsewhere) link.lower = 0;
  links.insert_or_assign(link.index, std::move(link));
}

void RouteTable::addRoute(const nlmsghdr& message) {
  if (!isDefaultRoute(message)) return;
  const rtmsg header = headerOf<rtmsg>(message).value();
  if (header.rtm_type != RTN_UNICAST) return;
  Route route;
  route.ipv6 = header.rtm_family == AF_INET6;
  NextHop only;
  bool isMultipath = false;
  forEachAttribute(message, sizeof(rtmsg), [&](unsigned type, const nlattr& attribute) {
    if (type == RTA_PRIORITY) route.metric = numberOf(attribute);
    if (type == RTA_OIF) only.interface = numberOf(attribute);
    if (type == RTA_GATEWAY || type == RTA_VIA) only.gateway = bytesOf(attribute);
    if (type == RTA_NH_ID) route.nextHopObject = numberOf(attribute);
    if (type == RTA_MULTIPATH) {
      isMultipath = true;
      route.hops = multipathHops(attribute);
    }
    if (type == RTA_PREF && mnl_attr_get_payload_len(&attribute) >= 1) {
      // Two bits, in two's complement.
      const unsigned preference = mnl_attr_get_u8(&attribute) & 3U;
      route.preference = preference == 3 ? -1 : static_cast<int>(preference & 1U);
    }
  });
  if (only.interface != 0 || isMultipath) route.nextHopObject = 0;
  if (only.interface != 0 && (header.rtm_flags & unusableHop) == 0) route.hops.push_back(std::move(only));
  defaultRoutes.push_back(std::move(route));
}

void RouteTable::addNextHopObject(const nlmsghdr& message) {
  const auto header = headerOf<nhmsg>(message);
  if (!header) return;
  std::uint32_t number = 0;
  NextHopObject object;
  NextHop hop;
  forEachAttribute(message, sizeof(nhmsg), [&](unsigned type, const nlattr& attribute) {
    if (type == NHA_ID) number = numberOf(attribute);
    if (type == NHA_OIF) hop.interface = numberOf(attribute);
    if (type == NHA_GATEWAY) hop.gateway = bytesOf(attribute);
    if (type == NHA_GROUP) {
      const std::string bytes = bytesOf(attribute);
      nexthop_grp member{};
      for (std::size_t at = 0; at + sizeof member <= bytes.size(); at += sizeof member) {
        std::memcpy(&member, bytes.data() + at, sizeof member);
        object.group.push_back(member.id);
      }
    }
  });
  if (hop.interface != 0 && (header->nh_flags & unusableHop) == 0) object.hops.push_back(std::move(hop));
  objects.insert_or_assign(number, std::move(object));
}

bool RouteTable::needsNextHopObjects() const {
  for (const auto& route : defaultRoutes) {
    if (route.nextHopObject != 0 && !objects.contains(route.nextHopObject)) return true;
  }
  return false;
}

bool RouteTable::Route::precedes(const Route& other) const {
  return std::tuple(ipv6, metric, -preference) < std::tuple(other.ipv6, other.metric, -other.preference);
}

std::vector<NextHop> RouteTable::usableHops(const Route& route) const {
  std::vector<NextHop> hops = route.hops;
  const auto addObject = [this, &hops](std::uint32_t number) -> const NextHopObject* {
    const auto found = objects.find(number);
    if (found == objects.end()) return nullptr;
    hops.insert(hops.end(), found->second.hops.begin(), found->second.hops.end());
    return &found->second;
  };
  // A group holds no groups.
  if (const auto* const object = addObject(route.nextHopObject)) {
    for (const std::uint32_t member : object->group) addObject(member);
  }
  std::erase_if(hops, [this](const NextHop& hop) {
    const auto link = links.find(hop.interface);
    return link == links.end() || !link->second.usable;
  });
  return hops;
}

std::vector<NextHop> RouteTable::defaultHops() const {
  const Route* best = nullptr;
  std::vector<NextHop> bestHops;
  for (const auto& route : defaultRoutes) {
    if (best != nullptr && !route.precedes(*best)) continue;
    auto hops = usableHops(route);
    if (hops.empty()) continue;
    best = &route;
    bestHops = std::move(hops);
  }
  return bestHops;
}

bool concernsDefaultRoute(const nlmsghdr& message) {
  switch (message.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return isInterfaceState(message);
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return isDefaultRoute(message);
    case RTM_DELADDR:  // the routes that are lost with an address are not told of
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
      return true;
    default:
      return false;
  }
}

}  // namespace kestrune
