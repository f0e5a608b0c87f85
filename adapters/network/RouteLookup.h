#pragma once

#include <libmnl/libmnl.h>

#include <map>
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

/// A network interface, as RTM_NEWLINK describes it.
struct Link {
  std::string name;
  unsigned hardwareType = 0;  ///< ARPHRD_…
  std::string kind;           ///< kind of a virtual device, such as "bridge"; empty for other devices
  bool usable = false;        ///< whether it is up and has a carrier; false for the loopback device
  unsigned lower = 0;         ///< index of the device beneath it; 0 for none in this network namespace
  unsigned master = 0;        ///< index of the bridge or bond to which it belongs; 0 for none
  unsigned activeMember = 0;  ///< of a bond: index of the member that carries all traffic; else 0
};

using Links = std::map<unsigned, Link>;  ///< key: interface index

/// The physical medium beneath an interface; if there are several, the one that this enum lists last. For
/// example, a bridge of Wi-Fi and a cable is wired: its Wi-Fi is an access point, because a Wi-Fi station
/// cannot be bridged.
enum class Medium { unknown, wiFi, cellular, wired };

/// Returns the medium of an interface, or of the devices beneath a stacked interface. Returns unknown for a
/// tunnel when no device beneath it has a known medium, and for an index that is not in `links`. `devices`: a
/// folder like /sys/class/net; it contains facts that rtnetlink does not report. Any thread.
Medium mediumOf(unsigned index, const Links& links, const std::string& devices);

/// Asks the kernel over rtnetlink through which interface a packet to the Internet would leave, and what
/// medium that interface has. RTM_GETROUTE makes the kernel look up the route to a global address, for IPv4
/// and for IPv6; no packet is sent. RTM_GETLINK describes the interface of the route; when it is a stacked
/// device, a dump describes all interfaces. Returns the IPv4 path if its interface is usable, else the IPv6
/// path if its interface is usable, else an unsatisfied path. Fails when the kernel refuses to answer, or
/// when interfaces change during each of the `attempts`. `devices`: a folder like /sys/class/net. Any thread.
Result<RoutedPath> lookUpRoute(const std::string& devices, int attempts = 3);

}  // namespace kestrune
