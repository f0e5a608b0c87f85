#include "platform/linux/DeviceMedia.h"

#include <linux/if_arp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "platform/posix/Files.h"

namespace kestrune {

namespace {

constexpr int deepestStack = 8;  // more is a ring

constexpr std::array<std::string_view, 2> cellularKinds{"wwan", "rmnet"};

/// Both ends of a pair name each other as what they are stacked on.
constexpr std::array<std::string_view, 2> pairKinds{"veth", "netkit"};

/// They look like Ethernet, whatever they run over.
constexpr std::array<std::string_view, 19> overlayKinds{
    "bridge", "bond",      "team",   "vlan",  "macvlan",    "macvtap", "ipvlan",
    "ipvtap", "macsec",    "tun",    "vxlan", "gretap",     "erspan",  "ip6gretap",
    "geneve", "ip6erspan", "batadv", "hsr",   "openvswitch"};

template <std::size_t N>
bool isAmong(const std::array<std::string_view, N>& kinds, std::string_view kind) {
  return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

/// The value of `key` among lines of the form KEY=VALUE; empty when it is not there.
std::string valueOf(std::string_view key, std::string_view lines) {
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find('\n'));
    if (line.starts_with(key) && line.substr(key.size()).starts_with('=')) {
      return std::string(line.substr(key.size() + 1));
    }
    lines.remove_prefix(std::min(lines.size(), line.size() + 1));
  }
  return {};
}

}  // namespace

DeviceMedia::DeviceMedia(std::string givenFolder, const std::map<unsigned, NetworkInterface>& interfaces)
    : folder(std::move(givenFolder)), links(interfaces) {}

Medium DeviceMedia::of(unsigned interface) const {
  return of(interface, 0);
}

Medium DeviceMedia::of(unsigned interface, int depth) const {
  const auto found = links.find(interface);
  if (found == links.end() || depth > deepestStack) return Medium::unknown;
  const NetworkInterface& link = found->second;
  const Device device = deviceOf(link);
  if (device.wireless || device.type == "wlan") return Medium::wiFi;
  if (device.type == "wwan" || isAmong(cellularKinds, link.kind) || link.hardwareType == ARPHRD_RAWIP) {
    return Medium::cellular;
  }
  if (link.activeMember != 0) return of(link.activeMember, depth + 1);
  if (const Medium medium = ofMembers(link, depth); medium != Medium::unknown) return medium;
  if (link.lower != 0 && !isAmong(pairKinds, link.kind)) return of(link.lower, depth + 1);
  const bool isEthernet = link.hardwareType == ARPHRD_ETHER && device.type != "bluetooth";
  return isEthernet && !isAmong(overlayKinds, link.kind) ? Medium::wired : Medium::unknown;
}

Medium DeviceMedia::ofMembers(const NetworkInterface& master, int depth) const {
  // In this order because a station cannot be bridged: Wi-Fi beside a cable is an access point, and the cable
  // leads out.
  constexpr std::array preferred{Medium::unknown, Medium::wiFi, Medium::cellular, Medium::wired};
  auto best = preferred.begin();
  for (const auto& [index, link] : links) {
    if (link.master != master.index || !link.usable) continue;
    best = std::max(best, std::find(preferred.begin(), preferred.end(), of(index, depth + 1)));
    if (*best == preferred.back()) break;
  }
  return *best;
}

DeviceMedia::Device DeviceMedia::deviceOf(const NetworkInterface& link) const {
  if (isAmong(overlayKinds, link.kind)) return {};
  const std::string device = folder + "/" + link.name;
  std::string text;
  static_cast<void>(readWholeFile(device + "/uevent", text));
  // The folder may show the devices of another network namespace.
  if (const std::string index = valueOf("IFINDEX", text);
      !index.empty() && index != std::to_string(link.index)) {
    return {};
  }
  const auto has = [&device](const char* name) { return access((device + name).c_str(), F_OK) == 0; };
  return {has("/phy80211") || has("/wireless"), valueOf("DEVTYPE", text)};
}

}  // namespace kestrune
