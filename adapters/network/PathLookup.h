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

/// One question to the kernel over rtnetlink: by which interface would a packet to the Internet leave, and
/// what is its medium? RTM_GETROUTE makes the kernel look up a global address of each family as for a packet,
/// sending none. RTM_GETLINK describes that interface; for a stacked device, all are requested. Any thread.
class PathLookup {
 public:
  /// Sends a request to the kernel. Returns 0 or an errno value.
  using Send = std::function<int(const nlmsghdr&)>;

  /// Sends the first requests. `portId` is the netlink port ID of the socket.
  PathLookup(std::uint32_t portId, Send send);

  /// Takes a received datagram, aligned like nlmsghdr; may send further requests. Returns true when it
  /// contains a message that answers no request: something has changed.
  bool take(const char* datagram, std::size_t size);

  /// Whether every request has been answered or could not be sent.
  bool isOver() const { return pending.empty(); }

  /// The IPv4 path, else the IPv6 path, over a usable interface; unsatisfied when there is none. Absent when
  /// the kernel refused to answer; `refusal` is then an errno value.
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
