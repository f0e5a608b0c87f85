#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "adapters/files/AutostartEntries.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {
namespace {

struct LaunchdRegister {
  std::set<std::string> files;
  LaunchdAgents agents{"/home/u", [this](const std::string& path) { return files.contains(path); }};
  void enter(const std::string& label) { files.insert(agents.path(label)); }
};

struct AutostartRegister {
  ScratchFolder home;
  FakeMainBundle bundle;
  AutostartEntries agents{home.file("autostart"), bundle};
  void enter(const std::string& label) {
    std::filesystem::create_directory(home.file("autostart"));
    std::ofstream(home.file("autostart/" + label + ".desktop")) << "[Desktop Entry]\n";
  }
};

template <typename Register>
struct LaunchAgentsContract : ::testing::Test, Register {};

using Registers = ::testing::Types<LaunchdRegister, AutostartRegister>;
TYPED_TEST_SUITE(LaunchAgentsContract, Registers);

TYPED_TEST(LaunchAgentsContract, KnowNobodyAtFirst) {
  EXPECT_FALSE(this->agents.isRegistered("com.example.client"));
}

TYPED_TEST(LaunchAgentsContract, KnowWhoIsEnteredAndNobodyElse) {
  this->enter("com.example.client");
  EXPECT_TRUE(this->agents.isRegistered("com.example.client"));
  EXPECT_FALSE(this->agents.isRegistered("com.example"));
  EXPECT_FALSE(this->agents.isRegistered("com.example.client.other"));
}

TYPED_TEST(LaunchAgentsContract, SeeWhatWasEnteredSinceTheyWereLastAsked) {
  EXPECT_FALSE(this->agents.isRegistered("com.example.client"));
  this->enter("com.example.client");
  EXPECT_TRUE(this->agents.isRegistered("com.example.client"));
}

TEST(AutostartEntries, AreFilesOfTheNameOfTheLabel) {
  const ScratchFolder folder;
  const FakeMainBundle bundle;
  const AutostartEntries agents(folder.file("."), bundle);
  std::ofstream(folder.file("com.example.client")) << "no entry";
  EXPECT_FALSE(agents.isRegistered("com.example.client"));
  std::ofstream(folder.file("com.example.client.desktop")) << "[Desktop Entry]\n";
  EXPECT_TRUE(agents.isRegistered("com.example.client"));
  std::filesystem::remove(folder.file("com.example.client.desktop"));
  EXPECT_FALSE(agents.isRegistered("com.example.client"));
}

}  // namespace
}  // namespace kestrune::testing
