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

/// Opens a non-blocking socket for rtnetlink. Returns null with errno set on failure. Any thread.
NetlinkSocket openRtnetlink();

/// Asks the kernel over rtnetlink through which interface a packet to the Internet would leave, and what
/// medium that interface has. RTM_GETROUTE makes the kernel look up the route to a global address, for IPv4
/// and for IPv6; no packet is sent. RTM_GETLINK describes the interface of the route; when it is a stacked
/// device, a dump describes all interfaces. Returns the IPv4 path if its interface is usable, else the IPv6
/// path if its interface is usable, else an unsatisfied path. Fails when the kernel refuses to answer, or when
/// interfaces change during each of the `attempts`. `devices`: a folder like /sys/class/net. Any thread.
Result<RoutedPath> lookUpRoute(const std::string& devices, int attempts = 3);

}  // namespace kestrune
