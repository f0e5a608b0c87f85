#include "adapters/instance/InstanceFolders.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {
namespace {

struct InstanceFoldersTest : ::testing::Test {
  ScratchFolder folder;
  const std::string runtimes = folder.file("user"), own = runtimes + "/" + std::to_string(geteuid());
  const std::string state = folder.file("state");

  std::string chosen(const std::string& runtime) const {
    const std::string path = InstanceFolders(runtime, state, runtimes).current();
    EXPECT_TRUE(path.ends_with("/kestrune-menu-client"));
    return path.substr(0, path.rfind('/'));
  }
};

TEST_F(InstanceFoldersTest, FirstExistingRuntimeFolderOfTheUserIsUsed) {
  EXPECT_EQ(chosen(""), state);
  std::filesystem::create_directories(own);
  EXPECT_EQ(chosen(""), own);
  EXPECT_EQ(chosen("/nowhere"), own);
  EXPECT_EQ(chosen("/dev/null"), own);
  const std::string session = folder.file("session");
  std::filesystem::create_directories(session);
  EXPECT_EQ(chosen(session), session);
  // A runtime folder that belongs to another user is skipped.
  EXPECT_TRUE(geteuid() != 0 || chown(session.c_str(), 65534, 65534) == 0);
  EXPECT_EQ(chosen(geteuid() == 0 ? session : "/usr"), own);
}

}  // namespace
}  // namespace kestrune::testing
