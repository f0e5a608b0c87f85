#pragma once

#include <libmnl/libmnl.h>

#include <memory>
#include <string>

#include "adapters/network/NetworkDecision.h"
#include "ports/Result.h"

namespace kestrune {

struct NetlinkSocketCloser {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using NetlinkSocket = std::unique_ptr<mnl_socket, NetlinkSocketCloser>;

/// A non-blocking socket for rtnetlink; null with errno set on failure. Any thread.
NetlinkSocket openRtnetlink();

/// Asks the kernel over rtnetlink through which interface a packet to the Internet would leave, and what
/// medium that interface has. RTM_GETROUTE makes the kernel look up a global address of each family as for a
/// packet, but it sends none. RTM_GETLINK describes that interface; when it is a stacked device, a dump
/// describes all interfaces. Returns the IPv4 path, else the IPv6 path, over a usable interface; an
/// unsatisfied path when there is none; a failure when the kernel refuses to answer. `devices` is a folder
/// like /sys/class/net. Any thread.
Result<RoutedPath> lookUpRoute(const std::string& devices);

}  // namespace kestrune
