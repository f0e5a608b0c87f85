#include "adapters/network/RouteLookup.h"

#include <arpa/inet.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "adapters/system/System.h"
#include "text/Text.h"

namespace kestrune {

namespace {

/// The attributes of a message, by type. A missing attribute is null. Types from 64 on are left out.
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

/// Returns the fixed header of a message (null when the message is too short) and its attributes.
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

/// A request with its fixed header, to which attributes can be added.
template <typename Header>
struct Request {
  explicit Request(std::uint16_t type, std::uint16_t flags = 0) {
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST | flags;
  }

  alignas(nlmsghdr) char buffer[128]{};
  nlmsghdr* const message = mnl_nlmsg_put_header(buffer);
  Header* const header = static_cast<Header*>(mnl_nlmsg_put_extra_header(message, sizeof(Header)));
};

using Take = std::function<void(const nlmsghdr&)>;

/// Sends a request, and passes each message of the answer to `take`. Does not block: the kernel queues the
/// answer during sendto(2), and each further part of a dump during recvfrom(2). Returns 0 or an errno value.
int ask(mnl_socket* socket, const nlmsghdr& request, Take take) {
  const auto pass = [](const nlmsghdr* message, void* data) {
    (*static_cast<Take*>(data))(*message);
    return (message->nlmsg_flags & NLM_F_MULTI) != 0 ? MNL_CB_OK : MNL_CB_STOP;
  };
  if (mnl_socket_sendto(socket, &request, request.nlmsg_len) < 0) return errno;
  alignas(nlmsghdr) std::array<char, 32768> buffer;  // the size of the largest datagram of a netlink dump
  int result = MNL_CB_OK;
  while (result == MNL_CB_OK) {
    const ssize_t size = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
    if (size < 0) return errno;
    result = mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), 0, mnl_socket_get_portid(socket), pass,
                        &take);
  }
  return result < 0 ? errno : 0;
}

int askForRoute(mnl_socket* socket, unsigned char family, RoutedPath& path) {
  Request<rtmsg> request(RTM_GETROUTE);
  const std::size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  request.header->rtm_family = family;
  request.header->rtm_dst_len = static_cast<unsigned char>(8 * size);
  // Addresses of a root name server. No packet is sent. Root servers are outside of every local network, and
  // are routed like any other host on the Internet. Do not use addresses that are reserved for documentation:
  // machines may have reject routes for them.
  in6_addr address{};
  inet_pton(family, family == AF_INET ? "198.41.0.4" : "2001:503:ba3e::2:30", &address);
  mnl_attr_put(request.message, RTA_DST, size, &address);
  return ask(socket, *request.message, [&path](const nlmsghdr& message) {
    const auto [header, attributes] = partsOf<rtmsg>(message);
    path.interface = numberOf(attributes[RTA_OIF]);
    // A route has RTA_GATEWAY, or RTA_VIA (the IPv6 gateway of an IPv4 route), or neither.
    path.gateway = bytesOf(attributes[RTA_GATEWAY]) + bytesOf(attributes[RTA_VIA]);
    path.source = bytesOf(attributes[RTA_PREFSRC]);
  });
}

/// Returns whether the device is one of a pair: what is sent into one device comes out of the other.
bool isPair(const Link& link) {
  return link.kind == "veth" || link.kind == "netkit";
}

void takeLink(const nlmsghdr& message, Links& links) {
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
  // IFLA_LINK is the index of the device beneath this one. Ignore it in two cases: for a pair, it is the
  // index of the other end; if IFLA_LINK_NETNSID is present, it is an index in another network namespace.
  if (!isPair(link) && attributes[IFLA_LINK_NETNSID] == nullptr) link.lower = numberOf(attributes[IFLA_LINK]);
  // Read IFLA_INFO_DATA for a bond only: the attribute types in it have another meaning for other kinds.
  const auto details = attributesIn(link.kind == "bond" ? description[IFLA_INFO_DATA] : nullptr);
  link.activeMember = numberOf(details[IFLA_BOND_ACTIVE_SLAVE]);
  links.insert_or_assign(static_cast<unsigned>(header->ifi_index), std::move(link));
}

/// Asks the kernel for a description of the interface `index`. If this may be a device on top of others, such
/// as a bridge or a tunnel, asks for a description of every interface. Adds the descriptions to `links`.
/// Returns 0 or an errno value.
int askForLinks(mnl_socket* socket, unsigned index, Links& links) {
  const auto take = [&links](const nlmsghdr& message) { takeLink(message, links); };
  Request<ifinfomsg> one(RTM_GETLINK);
  one.header->ifi_index = static_cast<int>(index);
  if (const int error = ask(socket, *one.message, take); error != 0) return error;
  const Link& link = links[index];
  if (link.lower == 0 && (link.kind.empty() || isPair(link))) return 0;
  return ask(socket, *Request<ifinfomsg>(RTM_GETLINK, NLM_F_DUMP).message, take);
}

/// Returns whether an error means that there is no usable route or interface.
bool meansNone(int error) {
  return error == ENETUNREACH ||   // no route, or a route of type throw
         error == EHOSTUNREACH ||  // a route of type unreachable
         error == EACCES ||        // a route of type prohibit
         error == EINVAL ||        // a route of type blackhole
         error == ENODEV;          // the interface has just vanished
}

/// Returns "wlan" for a Wi-Fi device; for any other network device, DEVTYPE in the file uevent of sysfs, such
/// as "wwan"; empty if it is missing.
std::string deviceType(unsigned index, const std::string& folder) {
  std::string uevent, type;
  readWholeFile(folder + "/uevent", uevent);
  for (const auto& line : split(uevent, '\n')) {
    if (line.starts_with("DEVTYPE=")) type = line.substr(line.find('=') + 1);
    // Ignore a device with another index: sysfs may show the devices of another network namespace.
    if (line.starts_with("IFINDEX=") && line != "IFINDEX=" + std::to_string(index)) return {};
  }
  const auto has = [&folder](const char* name) { return access((folder + name).c_str(), F_OK) == 0; };
  return has("/phy80211") || has("/wireless") ? "wlan" : type;
}

/// Returns the medium that the device's own attributes show.
Medium ownMedium(unsigned index, const Link& link, const std::string& devices) {
  const std::string type = deviceType(index, devices + "/" + link.name);
  if (type == "wlan") return Medium::wiFi;
  const bool isModem = link.kind == "wwan" || link.kind == "rmnet" || link.hardwareType == ARPHRD_RAWIP;
  if (isModem || type == "wwan") return Medium::cellular;
  // Only these kinds of Ethernet devices count as wired. Hardware has no kind. Other kinds of virtual
  // devices, such as bridges, are ARPHRD_ETHER too, but may run over any medium.
  constexpr std::array<std::string_view, 5> cableKinds{"", "veth", "netkit", "dsa", "dummy"};
  const bool isCable = std::ranges::find(cableKinds, link.kind) != cableKinds.end();
  const bool isEthernet = link.hardwareType == ARPHRD_ETHER && type != "bluetooth";
  return isCable && isEthernet && link.lower == 0 ? Medium::wired : Medium::unknown;
}

}  // namespace

NetlinkSocket openRtnetlink() {
  NetlinkSocket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (socket && mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) socket.reset();
  return socket;
}

Medium mediumOf(unsigned index, const Links& links, const std::string& devices) {
  Medium best = Medium::unknown;
  std::vector<unsigned> stack{index};  // interface indices: `index`, then the devices beneath it
  for (std::size_t i = 0; i < stack.size(); ++i) {
    const auto found = links.find(stack[i]);
    if (found == links.end()) continue;
    const Link& link = found->second;
    const Medium own = ownMedium(stack[i], link, devices);
    best = std::max(best, own);
    if (own != Medium::unknown) continue;
    for (const auto& [each, described] : links) {
      const bool isMember = described.master == stack[i] && described.usable && link.activeMember == 0;
      const bool isBeneath = isMember || each == link.activeMember || each == link.lower;
      if (isBeneath && std::find(stack.begin(), stack.end(), each) == stack.end()) stack.push_back(each);
    }
  }
  return best;
}

Result<RoutedPath> lookUpRoute(const std::string& devices, int attempts) {
  const NetlinkSocket socket = openRtnetlink();
  if (!socket) return Failure{describe(errno)};
  int refusal = 0;
  for (const int family : {AF_INET, AF_INET6}) {
    RoutedPath found;
    const int unrouted = askForRoute(socket.get(), static_cast<unsigned char>(family), found);
    // Treat every IPv6 error as "no route": a kernel without IPv6 reports errors unknown to `meansNone`.
    if (unrouted != 0 && !meansNone(unrouted) && family != AF_INET6) refusal = unrouted;
    if (unrouted != 0 || found.interface == 0) continue;
    Links links;
    const int error = askForLinks(socket.get(), found.interface, links);
    // If an interface appears or disappears during the dump, the kernel sets NLM_F_DUMP_INTR, and libmnl
    // reports EINTR. Then start again.
    if (error == EINTR && attempts > 1) return lookUpRoute(devices, attempts - 1);
    if (error != 0 && !meansNone(error)) return Failure{describe(error)};
    if (error != 0 || !links[found.interface].usable) continue;
    const Medium medium = mediumOf(found.interface, links, devices);
    found.path = {.satisfied = true,
                  .usesWiFi = medium == Medium::wiFi,
                  .usesWiredEthernet = medium == Medium::wired,
                  .usesCellular = medium == Medium::cellular};
    return found;
  }
  if (refusal != 0) return Failure{describe(refusal)};
  return RoutedPath{};
}

}  // namespace kestrune
