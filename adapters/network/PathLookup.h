#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "adapters/network/DeviceMedia.h"
#include "adapters/network/PathReports.h"

namespace kestrune {

/// One question to the kernel over rtnetlink: which way would a packet to the outside take, and what carries
/// it? RTM_GETROUTE looks up a global address of each family as for a packet, sending none, and RTM_GETLINK
/// describes the interface that it names. Of a stacked device, all interfaces are asked for. Any thread.
class PathLookup {
 public:
  /// Sends a request to the kernel; returns an errno, or 0.
  using Send = std::function<int(const nlmsghdr&)>;

  /// Sends the first requests, from the socket with that port ID.
  PathLookup(std::uint32_t portId, Send send);

  /// Takes a datagram, aligned as a message is. Answers may lead to further requests. Returns whether some
  /// message in it is no answer to a request, but tells of a change.
  bool take(const char* datagram, std::size_t size);

  /// Whether all requests have been answered, or could not be sent.
  bool isOver() const { return pending.empty(); }

  /// The path of IPv4, or else that of IPv6, over an interface that is usable; absent when the kernel refused
  /// to answer, and `refusal` is then an errno.
  std::optional<RoutedPath> path(const std::string& devices) const;
  int refusal() const { return lastRefusal; }

 private:
  void askForRoute(unsigned char family, const char* destination);
  void askForLinks(unsigned index);
  void ask(nlmsghdr& request, unsigned char family);
  bool takeAnswer(const nlmsghdr& message, unsigned char family);
  void takeRoute(const nlmsghdr& message);
  void takeLink(const nlmsghdr& message);

  const std::uint32_t portId;
  const Send send;
  std::map<std::uint32_t, unsigned char>
      pending;  // sequence numbers, with the family of a route or AF_UNSPEC
  std::uint32_t sequence = 0;
  bool askedForAllLinks = false;
  int lastRefusal = 0;
  RoutedPath ipv4, ipv6;
  Links links;
};

}  // namespace kestrune
