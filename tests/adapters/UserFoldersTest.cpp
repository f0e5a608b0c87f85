#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include "adapters/files/ProgramBundle.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {
namespace {

using Paths = std::vector<std::string>;

UserFolders foldersOf(std::map<std::string, std::string> environment) {
  FakeMainBundle bundle;
  environment.emplace("HOME", "/home/u");
  bundle.environment = std::move(environment);
  return UserFolders::fromEnvironment(bundle);
}

TEST(UserFolders, LieInTheHomeFolderUnlessTheEnvironmentSaysOtherwise) {
  const UserFolders folders = foldersOf({});
  EXPECT_EQ(folders.config, "/home/u/.config");
  EXPECT_EQ(folders.state, "/home/u/.local/state");
  EXPECT_EQ(folders.runtime, "");
  EXPECT_EQ(folders.data, (Paths{"/home/u/.local/share", "/usr/local/share", "/usr/share"}));
}

TEST(UserFolders, LieWhereTheEnvironmentSays) {
  const UserFolders folders = foldersOf({{"XDG_CONFIG_HOME", "/c"},
                                         {"XDG_STATE_HOME", "/s"},
                                         {"XDG_RUNTIME_DIR", "/r"},
                                         {"XDG_DATA_HOME", "/d"},
                                         {"XDG_DATA_DIRS", "/e:/f"}});
  EXPECT_EQ(folders.config, "/c");
  EXPECT_EQ(folders.state, "/s");
  EXPECT_EQ(folders.runtime, "/r");
  EXPECT_EQ(folders.data, (Paths{"/d", "/e", "/f"}));
}

TEST(UserFolders, TakeAnEmptyVariableForOneThatIsNotSet) {
  const UserFolders folders = foldersOf({{"XDG_CONFIG_HOME", ""},
                                         {"XDG_STATE_HOME", ""},
                                         {"XDG_RUNTIME_DIR", ""},
                                         {"XDG_DATA_HOME", ""},
                                         {"XDG_DATA_DIRS", ""}});
  EXPECT_EQ(folders.config, "/home/u/.config");
  EXPECT_EQ(folders.state, "/home/u/.local/state");
  EXPECT_EQ(folders.runtime, "");
  EXPECT_EQ(folders.data, (Paths{"/home/u/.local/share", "/usr/local/share", "/usr/share"}));
}

TEST(UserFolders, IgnoreRelativePaths) {
  const UserFolders folders = foldersOf({{"XDG_CONFIG_HOME", "c"},
                                         {"XDG_STATE_HOME", "./s"},
                                         {"XDG_RUNTIME_DIR", "~/r"},
                                         {"XDG_DATA_HOME", "../d"},
                                         {"XDG_DATA_DIRS", "/e:f:/g"}});
  EXPECT_EQ(folders.config, "/home/u/.config");
  EXPECT_EQ(folders.state, "/home/u/.local/state");
  EXPECT_EQ(folders.runtime, "");
  EXPECT_EQ(folders.data, (Paths{"/home/u/.local/share", "/e", "/g"}));
}

TEST(UserFolders, IgnoreARelativePathAtTheBeginningOfAListAndNotTheWholeList) {
  EXPECT_EQ(foldersOf({{"XDG_DATA_DIRS", "f:/e:/g"}}).data, (Paths{"/home/u/.local/share", "/e", "/g"}));
  EXPECT_EQ(foldersOf({{"XDG_DATA_DIRS", ":/e::/g:"}}).data, (Paths{"/home/u/.local/share", "/e", "/g"}));
}

TEST(UserFolders, EndWithoutASlash) {
  const UserFolders folders = foldersOf({{"XDG_CONFIG_HOME", "/c/"},
                                         {"XDG_STATE_HOME", "/s/"},
                                         {"XDG_RUNTIME_DIR", "/r/"},
                                         {"XDG_DATA_HOME", "/d/"},
                                         {"XDG_DATA_DIRS", "/e/:/f//"}});
  EXPECT_EQ(folders.config, "/c");
  EXPECT_EQ(folders.state, "/s");
  EXPECT_EQ(folders.runtime, "/r");
  EXPECT_EQ(folders.data, (Paths{"/d", "/e", "/f"}));
}

TEST(UserFolders, AreThoseOfTheAccountWhenThereIsNoHome) {
  const passwd* const user = getpwuid(getuid());
  ASSERT_NE(user, nullptr);
  const std::string home = user->pw_dir;
  EXPECT_EQ(UserFolders::fromEnvironment(FakeMainBundle()).config, home + "/.config");
  FakeMainBundle empty;
  empty.environment["HOME"] = "";
  EXPECT_EQ(UserFolders::fromEnvironment(empty).state, home + "/.local/state");
}

}  // namespace
}  // namespace kestrune::testing
