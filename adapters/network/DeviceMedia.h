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
  unsigned activeMember = 0;  ///< of a bond: index of the member that carries the traffic; 0 where all do
};

using Links = std::map<unsigned, Link>;  ///< by index

/// What carries the traffic of an interface in the end. Of several, the last leads out: a Wi-Fi station
/// cannot be bridged, so that Wi-Fi beside a cable is an access point.
enum class Medium { unknown, wiFi, cellular, wired };

/// The medium of an interface, or of what is beneath a stacked one. Unknown for tunnels with nothing known
/// beneath, and for an index that is not among `links`. `devices` has a folder for each device that says what
/// rtnetlink does not, as /sys/class/net has. Any thread.
Medium mediumOf(unsigned index, const Links& links, const std::string& devices);

}  // namespace kestrune
