#include "adapters/network/DeviceMedia.h"

#include <linux/if_arp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "adapters/system/WholeFile.h"
#include "text/Text.h"

namespace kestrune {

namespace {

/// The kinds (IFLA_INFO_KIND) of Ethernet devices that count as wired: hardware (empty), pairs, switch ports
/// and dummies. Devices of other kinds are ARPHRD_ETHER too, but may run over any medium.
constexpr std::array<std::string_view, 5> cableKinds{"", "veth", "netkit", "dsa", "dummy"};

/// What sysfs tells about a network device.
struct Device {
  bool wireless = false;
  std::string type;  ///< DEVTYPE, such as "wwan"; empty for most
};

Device deviceOf(unsigned index, const std::string& folder) {
  Device device;
  std::string uevent;
  readWholeFile(folder + "/uevent", uevent);
  for (const auto& line : split(uevent, '\n')) {
    if (line.starts_with("DEVTYPE=")) device.type = line.substr(line.find('=') + 1);
    // Ignore a device with another index: sysfs may show the devices of another network namespace.
    if (line.starts_with("IFINDEX=") && line != "IFINDEX=" + std::to_string(index)) return {};
  }
  const auto has = [&folder](const char* name) { return access((folder + name).c_str(), F_OK) == 0; };
  device.wireless = device.type == "wlan" || has("/phy80211") || has("/wireless");
  return device;
}

/// Returns the medium of the device itself; unknown if it may be stacked on another device.
Medium ownMedium(unsigned index, const Link& link, const std::string& devices) {
  const Device device = deviceOf(index, devices + "/" + link.name);
  if (device.wireless) return Medium::wiFi;
  const bool isModem = link.kind == "wwan" || link.kind == "rmnet" || link.hardwareType == ARPHRD_RAWIP;
  if (isModem || device.type == "wwan") return Medium::cellular;
  const bool isCable = std::find(cableKinds.begin(), cableKinds.end(), link.kind) != cableKinds.end();
  const bool isEthernet = link.hardwareType == ARPHRD_ETHER && device.type != "bluetooth";
  return isCable && isEthernet && link.lower == 0 ? Medium::wired : Medium::unknown;
}

}  // namespace

Medium mediumOf(unsigned index, const Links& links, const std::string& devices) {
  Medium best = Medium::unknown;
  std::vector<unsigned> stack{index};  // the interface and all devices beneath it, each once, by index
  const auto add = [&stack](unsigned each) {
    if (std::find(stack.begin(), stack.end(), each) == stack.end()) stack.push_back(each);
  };
  for (std::size_t i = 0; i < stack.size(); ++i) {
    const auto found = links.find(stack[i]);
    if (found == links.end()) continue;
    const Link& link = found->second;
    const Medium own = ownMedium(stack[i], link, devices);
    best = std::max(best, own);
    if (own != Medium::unknown) continue;
    if (link.activeMember != 0) add(link.activeMember);
    if (link.lower != 0) add(link.lower);
    for (const auto& [member, described] : links) {
      if (described.master == stack[i] && described.usable && link.activeMember == 0) add(member);
    }
  }
  return best;
}

}  // namespace kestrune
