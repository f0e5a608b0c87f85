#include "adapters/network/PathLookup.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace kestrune {

namespace {

// Addresses of a root name server; nothing is sent to them. Machines may reject documentation addresses or
// use them locally. The root servers lie outside of every network and are routed like any other host.
constexpr auto ipv4Destination = "198.41.0.4";
constexpr auto ipv6Destination = "2001:503:ba3e::2:30";

/// The errors that mean: there is no such route or interface.
constexpr std::array noneErrors{
    ENETUNREACH,   // no route, or one of type throw
    EHOSTUNREACH,  // unreachable
    EACCES,        // prohibit
    EINVAL,        // blackhole
    ENODEV,        // the interface has vanished; a message about that follows
};

constexpr int largestError = 4095;  // MAX_ERRNO of the kernel

/// Attributes by type, types below 64 only; null when missing.
using Attributes = std::array<const nlattr*, 64>;

int store(const nlattr* attribute, void* attributes) {
  const auto type = mnl_attr_get_type(attribute);
  if (type < std::tuple_size_v<Attributes>) (*static_cast<Attributes*>(attributes))[type] = attribute;
  return MNL_CB_OK;
}

Attributes attributesIn(const nlattr* parent) {
  Attributes attributes{};
  if (parent != nullptr) mnl_attr_parse_nested(parent, &store, &attributes);
  return attributes;
}

/// The fixed header of a message (null when the message is too short) and its attributes.
template <typename Header>
std::pair<const Header*, Attributes> partsOf(const nlmsghdr& message) {
  Attributes attributes{};
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(Header)) return {nullptr, attributes};
  mnl_attr_parse(&message, sizeof(Header), &store, &attributes);
  return {static_cast<const Header*>(mnl_nlmsg_get_payload(&message)), attributes};
}

std::string bytesOf(const nlattr* attribute) {
  if (attribute == nullptr) return {};
  return {static_cast<const char*>(mnl_attr_get_payload(attribute)), mnl_attr_get_payload_len(attribute)};
}

std::string textOf(const nlattr* attribute) {
  const std::string bytes = bytesOf(attribute);
  return bytes.substr(0, bytes.find('\0'));
}

std::uint32_t numberOf(const nlattr* attribute) {
  const bool isNumber = attribute != nullptr && mnl_attr_get_payload_len(attribute) >= sizeof(std::uint32_t);
  return isNumber ? mnl_attr_get_u32(attribute) : 0;
}

}  // namespace

PathLookup::PathLookup(std::uint32_t givenPortId, Send givenSend)
    : portId(givenPortId), send(std::move(givenSend)) {
  askForRoute(AF_INET, ipv4Destination);
  askForRoute(AF_INET6, ipv6Destination);
}

void PathLookup::askForRoute(unsigned char family, const char* destination) {
  struct {
    nlmsghdr header;
    rtmsg route;
    nlattr type;
    in6_addr address;
  } request{};
  const std::size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_len = static_cast<std::uint32_t>(offsetof(decltype(request), address) + size);
  request.route.rtm_family = family;
  request.route.rtm_dst_len = static_cast<unsigned char>(8 * size);
  request.type = {static_cast<std::uint16_t>(sizeof(nlattr) + size), RTA_DST};
  inet_pton(family, destination, &request.address);
  ask(request.header, family);
}

/// Asks for the interface with that index; for all when it is 0.
void PathLookup::askForLinks(unsigned index) {
  struct {
    nlmsghdr header;
    ifinfomsg link;
  } request{};
  request.header.nlmsg_type = RTM_GETLINK;
  request.header.nlmsg_len = sizeof request;
  if (index == 0) request.header.nlmsg_flags = NLM_F_DUMP;
  request.link.ifi_index = static_cast<int>(index);
  ask(request.header, AF_UNSPEC);
}

void PathLookup::ask(nlmsghdr& request, unsigned char family) {
  request.nlmsg_flags |= NLM_F_REQUEST;
  request.nlmsg_seq = ++sequence;
  if (const int error = send(request); error != 0) {
    lastRefusal = error;
  } else {
    pending.emplace(sequence, family);
  }
}

bool PathLookup::take(const char* datagram, std::size_t size) {
  bool isNews = false;
  int left = static_cast<int>(size);
  const auto* message = reinterpret_cast<const nlmsghdr*>(datagram);
  // mnl_nlmsg_ok reads a length of 2 GiB or more as a negative int, and accepts it.
  for (; mnl_nlmsg_ok(message, left) && message->nlmsg_len <= size;
       message = mnl_nlmsg_next(message, &left)) {
    const auto request = pending.find(message->nlmsg_seq);
    if (message->nlmsg_pid != portId || request == pending.end()) {
      isNews = true;
    } else if (takeAnswer(*message, request->second)) {
      pending.erase(request);
    }
  }
  return isNews;
}

/// Returns whether this message ends the answer to its request.
bool PathLookup::takeAnswer(const nlmsghdr& message, unsigned char family) {
  if (message.nlmsg_type == RTM_NEWROUTE) takeRoute(message);
  if (message.nlmsg_type == RTM_NEWLINK) takeLink(message);
  if (message.nlmsg_type == NLMSG_ERROR) {
    const auto* const header = partsOf<nlmsgerr>(message).first;
    const int error = header != nullptr && header->error >= -largestError ? -header->error : EBADMSG;
    const bool isNone = std::find(noneErrors.begin(), noneErrors.end(), error) != noneErrors.end();
    // A kernel without IPv6 answers an IPv6 lookup with other errors.
    if (!isNone && family != AF_INET6) lastRefusal = error;
  }
  return message.nlmsg_type == NLMSG_DONE || (message.nlmsg_flags & NLM_F_MULTI) == 0;
}

void PathLookup::takeRoute(const nlmsghdr& message) {
  const auto [header, attributes] = partsOf<rtmsg>(message);
  if (header == nullptr) return;
  RoutedPath& route = header->rtm_family == AF_INET6 ? ipv6 : ipv4;
  route.interface = numberOf(attributes[RTA_OIF]);
  route.gateway = bytesOf(attributes[RTA_GATEWAY]) + bytesOf(attributes[RTA_VIA]);  // or of IPv6 (RTA_VIA)
  route.source = bytesOf(attributes[RTA_PREFSRC]);
  if (route.interface != 0) askForLinks(route.interface);
}

void PathLookup::takeLink(const nlmsghdr& message) {
  const auto [header, attributes] = partsOf<ifinfomsg>(message);
  if (header == nullptr) return;
  const auto description = attributesIn(attributes[IFLA_LINKINFO]);
  Link link;
  link.name = textOf(attributes[IFLA_IFNAME]);
  link.kind = textOf(description[IFLA_INFO_KIND]);
  link.hardwareType = header->ifi_type;
  constexpr unsigned wanted = IFF_UP | IFF_LOWER_UP | IFF_RUNNING;
  link.usable = (header->ifi_flags & (wanted | IFF_LOOPBACK)) == wanted;
  link.master = numberOf(attributes[IFLA_MASTER]);
  // IFLA_LINK of a pair is its other end; with IFLA_LINK_NETNSID, an index in another network namespace.
  const bool isPair = link.kind == "veth" || link.kind == "netkit";
  if (!isPair && attributes[IFLA_LINK_NETNSID] == nullptr) link.lower = numberOf(attributes[IFLA_LINK]);
  // The attribute types in IFLA_INFO_DATA depend on the kind.
  const auto details = attributesIn(link.kind == "bond" ? description[IFLA_INFO_DATA] : nullptr);
  link.activeMember = numberOf(details[IFLA_BOND_ACTIVE_SLAVE]);
  const bool isStacked = link.lower != 0 || !(isPair || link.kind.empty());
  links.insert_or_assign(static_cast<unsigned>(header->ifi_index), std::move(link));
  if (isStacked && !std::exchange(askedForAllLinks, true)) askForLinks(0);
}

std::optional<RoutedPath> PathLookup::path(const std::string& devices) const {
  for (RoutedPath found : {ipv4, ipv6}) {
    const auto link = links.find(found.interface);
    if (link == links.end() || !link->second.usable) continue;
    const Medium medium = mediumOf(found.interface, links, devices);
    found.path.satisfied = true;
    found.path.usesWiFi = medium == Medium::wiFi;
    found.path.usesWiredEthernet = medium == Medium::wired;
    found.path.usesCellular = medium == Medium::cellular;
    return found;
  }
  return lastRefusal == 0 ? std::optional(RoutedPath{}) : std::nullopt;
}

}  // namespace kestrune
