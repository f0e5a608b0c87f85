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
  unsigned lower = 0;         ///< index of the device beneath it, for example beneath a VLAN; 0 for none
  unsigned master = 0;        ///< index of the bridge or bond to which it belongs; 0 for none
  unsigned activeMember = 0;  ///< for a bond with one active member: the index of this member; else 0
};

using Links = std::map<unsigned, Link>;  ///< key: interface index

/// The physical medium beneath an interface. If there are several, the one that this enum lists last counts.
/// For example, a bridge of Wi-Fi and a cable counts as wired: its Wi-Fi device is normally an access point,
/// so the route to the Internet is through the cable.
enum class Medium { unknown, wiFi, cellular, wired };

/// Returns the medium of the interface `index`. If the interface itself has no medium (bridge, bond, VLAN,
/// tunnel), returns the medium of the interfaces beneath it. Returns unknown if these have none either, or if
/// `index` is not in `links`. `devices`: a folder like /sys/class/net, with facts that rtnetlink does not
/// report. Any thread.
Medium mediumOf(unsigned index, const Links& links, const std::string& devices);

/// Finds the interface through which packets to the Internet leave, and its medium. Asks the kernel for the
/// route to a global address (RTM_GETROUTE); no packet is sent to that address. Returns the IPv4 route if its
/// interface is usable, else the IPv6 route if its interface is usable, else a default `RoutedPath` (no
/// connection). Fails if the kernel reports an error that does not mean "no route". If an interface appears
/// or disappears meanwhile, starts again; fails if this happens `attempts` times. `devices`: as for
/// `mediumOf`. Any thread.
Result<RoutedPath> lookUpRoute(const std::string& devices, int attempts = 3);

}  // namespace kestrune
