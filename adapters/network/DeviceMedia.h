#pragma once

#include <map>
#include <string>

namespace kestrune {

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

/// The physical medium beneath an interface; if there are several, the one that this enum lists last. So a
/// bridge of Wi-Fi and a cable is wired: its Wi-Fi is an access point, as a Wi-Fi station cannot be bridged.
enum class Medium { unknown, wiFi, cellular, wired };

/// Returns the medium of an interface, or of the devices beneath a stacked interface. Returns unknown for a
/// tunnel when no device beneath it has a known medium, and for an index that is not in `links`. `devices`: a
/// folder like /sys/class/net; it contains facts that rtnetlink does not report. Any thread.
Medium mediumOf(unsigned index, const Links& links, const std::string& devices);

}  // namespace kestrune
