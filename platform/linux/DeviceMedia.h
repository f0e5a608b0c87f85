#pragma once

#include <string>

#include "platform/linux/RouteTable.h"

namespace kestrune {

/// What carries the traffic of an interface in the end.
enum class Medium { unknown, wired, wiFi, cellular };

/// Tells the media of the interfaces of one reading: of a bridge, a bond, or a device stacked on another,
/// that of the device beneath. Asks the kernel's folder of network devices for what rtnetlink does not say.
/// Any thread.
class DeviceMedia {
 public:
  /// `folder` holds one folder for each device, as /sys/class/net does. Devices that it does not have are
  /// told by rtnetlink alone. `interfaces` outlives this.
  DeviceMedia(std::string folder, const std::map<unsigned, NetworkInterface>& interfaces);

  /// Unknown for tunnels with nothing known beneath, and for an index that there is not.
  Medium of(unsigned interface) const;

 private:
  struct Device {
    bool wireless = false;
    std::string type;  ///< such as "wwan"; empty for most
  };

  Medium of(unsigned interface, int depth) const;
  Medium ofMembers(const NetworkInterface& master, int depth) const;
  Device deviceOf(const NetworkInterface& link) const;

  const std::string folder;
  const std::map<unsigned, NetworkInterface>& links;
};

}  // namespace kestrune
