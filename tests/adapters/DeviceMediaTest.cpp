#include "adapters/network/RouteLookup.h"

#include <gtest/gtest.h>
#include <linux/if_arp.h>

#include <filesystem>
#include <fstream>

#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {
namespace {

struct DeviceMediaTest : ::testing::Test {
  Link& add(unsigned index, const std::string& name, const std::string& kind = {},
            unsigned hardwareType = ARPHRD_ETHER) {
    Link& link = links[index];
    link = {.name = name, .hardwareType = hardwareType, .kind = kind, .usable = true};
    return link;
  }

  void pretend(const std::string& device, const std::string& uevent, const std::string& sign = {}) const {
    std::filesystem::create_directories(devices.file(device + "/" + sign));
    std::ofstream(devices.file(device + "/uevent")) << uevent;
  }

  Medium medium(unsigned index) const { return mediumOf(index, links, devices.file("")); }

  Links links;
  ScratchFolder devices;
};

TEST_F(DeviceMediaTest, EthernetIsWired) {
  add(2, "cable");
  // A veth device counts as wired, because the Ethernet device of a container is one end of a veth pair.
  add(3, "pair", "veth");
  // The uevent file states another index (7, not 4). So it describes a device of another network namespace,
  // and must be ignored, although it states Wi-Fi.
  add(4, "elsewhere");
  pretend("elsewhere", "DEVTYPE=wlan\nINTERFACE=elsewhere\nIFINDEX=7\n");
  for (const unsigned index : {2U, 3U, 4U}) EXPECT_EQ(medium(index), Medium::wired) << index;
  EXPECT_EQ(medium(99), Medium::unknown);
}

TEST_F(DeviceMediaTest, EachSignOfWiFiIsEnough) {
  for (const unsigned index : {2U, 3U, 4U}) add(index, std::to_string(index));
  pretend("2", "", "phy80211");
  pretend("3", "INTERFACE=3\nIFINDEX=3\n", "wireless");
  pretend("4", "DEVTYPE=wlan\nINTERFACE=4\nIFINDEX=4\n");
  for (const unsigned index : {2U, 3U, 4U}) EXPECT_EQ(medium(index), Medium::wiFi) << index;
}

TEST_F(DeviceMediaTest, EachSignOfCellularIsEnough) {
  add(2, "two");
  pretend("two", "DEVTYPE=wwan");
  add(3, "three", "", ARPHRD_PPP);
  pretend("three", "DEVTYPE=wwan\n");
  add(4, "four", "", ARPHRD_RAWIP);
  add(5, "five", "wwan", ARPHRD_NONE);
  add(6, "six", "rmnet").lower = 2;
  for (const unsigned index : {2U, 3U, 4U, 5U, 6U}) EXPECT_EQ(medium(index), Medium::cellular) << index;
}

TEST_F(DeviceMediaTest, TunnelsAreUnknown) {
  for (const char* const kind : {"tun", "vxlan", "geneve", "gretap", "openvswitch", "kind-of-tomorrow"}) {
    add(2, kind, kind);
    EXPECT_EQ(medium(2), Medium::unknown) << kind;
  }
  for (const char* const kind : {"wireguard", "tun", "ovpn"}) {
    add(2, kind, kind, ARPHRD_NONE);
    EXPECT_EQ(medium(2), Medium::unknown) << kind;
  }
  add(2, "ppp0", "", ARPHRD_PPP);
  pretend("ppp0", "DEVTYPE=ppp\n");
  EXPECT_EQ(medium(2), Medium::unknown);
  add(3, "bnep0");
  pretend("bnep0", "DEVTYPE=bluetooth\n");
  EXPECT_EQ(medium(3), Medium::unknown);
}

TEST_F(DeviceMediaTest, StackedDeviceHasTheMediumBeneath) {
  add(2, "radio");
  pretend("radio", "DEVTYPE=wlan\n");
  add(3, "vlan", "vlan").lower = 2;
  add(4, "tunnel", "gre", ARPHRD_IPGRE).lower = 3;
  EXPECT_EQ(medium(4), Medium::wiFi);
}

TEST_F(DeviceMediaTest, RingOfStackedDevicesEnds) {
  for (const unsigned index : {2U, 3U}) {
    Link& link = add(index, "ring", "macvlan");
    link.lower = 5 - index;
    link.master = 2;
  }
  EXPECT_EQ(medium(2), Medium::unknown);
}

// If a bridge has Wi-Fi and a cable, the Wi-Fi is an access point for other machines, so the cable counts.
TEST_F(DeviceMediaTest, BridgeHasTheMediumOfItsUsableMembers) {
  add(2, "bridge", "bridge");
  EXPECT_EQ(medium(2), Medium::unknown);
  pretend("radio", "DEVTYPE=wlan\n");
  add(3, "radio").master = 2;
  Link& cable = add(4, "cable");
  cable.master = 2;
  cable.usable = false;
  EXPECT_EQ(medium(2), Medium::wiFi);
  cable.usable = true;
  EXPECT_EQ(medium(2), Medium::wired);
}

TEST_F(DeviceMediaTest, BondHasTheMediumOfItsActiveMember) {
  pretend("radio", "DEVTYPE=wlan\n");
  add(3, "radio").master = 2;
  add(4, "cable").master = 2;
  Link& bond = add(2, "bond", "bond");
  bond.activeMember = 3;
  EXPECT_EQ(medium(2), Medium::wiFi);
  bond.activeMember = 4;
  EXPECT_EQ(medium(2), Medium::wired);
}

}  // namespace
}  // namespace kestrune::testing
