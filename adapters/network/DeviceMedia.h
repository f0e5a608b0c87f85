#pragma once

#include <map>
#include <string>

namespace kestrune {

/// An interface, as RTM_NEWLINK describes it.
struct Link {
  std::string name;
  unsigned hardwareType = 0;  ///< ARPHRD_…
  std::string kind;           ///< of a virtual device, such as "bridge"; empty for others
  bool usable = false;        ///< up and with carrier; never the loopback
  unsigned lower = 0;         ///< index of the device that it is stacked on; 0 for none in this namespace
  unsigned master = 0;        ///< index of the bridge or bond that it is a member of; 0 for none
  unsigned activeMember = 0;  ///< of a bond: index of the member that carries the traffic; 0 when all do
};

using Links = std::map<unsigned, Link>;  ///< by index

/// The physical medium beneath an interface. Of several, the one listed last counts: a Wi-Fi station cannot
/// be bridged, so Wi-Fi beside a cable in a bridge is an access point.
enum class Medium { unknown, wiFi, cellular, wired };

/// The medium of an interface, or of the devices beneath a stacked one. Unknown for a tunnel with nothing
/// known beneath, and for an index that is not in `links`. `devices` is a folder like /sys/class/net, which
/// has what rtnetlink does not report. Any thread.
Medium mediumOf(unsigned index, const Links& links, const std::string& devices);

}  // namespace kestrune
