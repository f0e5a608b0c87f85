#include <pwd.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "adapters/files/ProgramBundle.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;

/// Runs a copy of the program print_bundle (tests/rig/PrintBundle.cpp), installed in a temporary prefix.
struct RunningProgram : ::testing::Test, RealChildren {
  const std::string prefix = fs::canonical(folder.file("."));
  const std::string bin = prefix + "/Kestrune Menu Client";
  const std::string program = bin + "/客戶端 1";

  RunningProgram() {
    fs::create_directory(bin);
    fs::copy_file(PRINT_BUNDLE, program);
  }

  /// Runs the copy of print_bundle at the path `started`, and returns its output. The copy executes the shell
  /// command `command`. Then it prints the paths of its folder, of its executable, of the working folder, and
  /// of the resource `name`.`extension` ("none" if there is no such resource).
  std::string say(const std::string& started, const std::string& command, const std::string& name = "logo",
                  const std::string& extension = "png") {
    return outputOf({command, name, extension}, started);
  }
  std::string paths(const std::string& resource = "none") const {
    return bin + "\n" + program + "\n" + fs::current_path().string() + "\n" + resource + "\n";
  }

  std::string putResource(const std::string& place) const {
    const fs::path path = fs::path(prefix) / place;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "a resource";
    return path;
  }
};

TEST_F(RunningProgram, PathsStayTheSameWhenFilesAreMoved) {
  fs::create_symlink(program, prefix + "/link");
  EXPECT_EQ(say(prefix + "/link", "true"), paths());
  EXPECT_EQ(say(program, "mv '" + bin + "' '" + prefix + "/moved'"), paths());
  fs::rename(prefix + "/moved", bin);
  EXPECT_EQ(say(program, "rm '" + program + "'"), paths());
}

TEST_F(RunningProgram, ResourcesAreBesideTheProgramOrInThePrefix) {
  const std::string installed = putResource("share/kestrune-menu-client/logo.png");
  EXPECT_EQ(say(program, "true"), paths(installed));
  const std::string beside = putResource("Kestrune Menu Client/resources/logo.png");
  EXPECT_EQ(say(program, "true"), paths(beside));
}

TEST_F(RunningProgram, MissingResourceIsAbsent) {
  putResource("Kestrune Menu Client/resources/logo.png");
  putResource("Kestrune Menu Client/logo.svg");
  EXPECT_EQ(say(program, "true", "logo", "icns"), paths());
  EXPECT_EQ(say(program, "true", "Logo", "png"), paths());
  EXPECT_EQ(say(program, "true", "logo", "svg"), paths());
}

// --- UserFolders, the XDG base directories

using Paths = std::vector<std::string>;

UserFolders foldersOf(std::map<std::string, std::string> environment) {
  FakeMainBundle bundle;
  environment.emplace("HOME", "/home/u");
  bundle.environment = std::move(environment);
  return UserFolders::fromEnvironment(bundle);
}

TEST(UserFolders, DefaultsAreInTheHomeFolder) {
  // A variable with an empty or relative path counts as not set.
  for (const auto& [config, state, runtime, data] :
       {std::array{"", "", "", ""}, std::array{"c", "./s", "~/r", "../d"}}) {
    const UserFolders folders = foldersOf({{"XDG_CONFIG_HOME", config},
                                           {"XDG_STATE_HOME", state},
                                           {"XDG_RUNTIME_DIR", runtime},
                                           {"XDG_DATA_HOME", data},
                                           {"XDG_DATA_DIRS", ""}});
    EXPECT_EQ(folders.config, "/home/u/.config");
    EXPECT_EQ(folders.state, "/home/u/.local/state");
    EXPECT_EQ(folders.runtime, "");
    EXPECT_EQ(folders.data, (Paths{"/home/u/.local/share", "/usr/local/share", "/usr/share"}));
  }
  EXPECT_EQ(foldersOf({}).config, "/home/u/.config");
  EXPECT_EQ(foldersOf({}).data, (Paths{"/home/u/.local/share", "/usr/local/share", "/usr/share"}));
}

TEST(UserFolders, RelativePathInAListIsIgnored) {
  EXPECT_EQ(foldersOf({{"XDG_DATA_DIRS", "f:/e:/g"}}).data, (Paths{"/home/u/.local/share", "/e", "/g"}));
  EXPECT_EQ(foldersOf({{"XDG_DATA_DIRS", ":/e::/g:"}}).data, (Paths{"/home/u/.local/share", "/e", "/g"}));
}

TEST(UserFolders, VariablesSetTheFoldersWithoutTrailingSlash) {
  EXPECT_EQ(foldersOf({{"HOME", "/home/u//"}}).home, "/home/u");
  EXPECT_EQ(foldersOf({{"HOME", "/home/u/"}}).config, "/home/u/.config");
  EXPECT_EQ(foldersOf({{"HOME", "/"}}).home, "/");
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

TEST(UserFolders, HomeOfTheAccountIsUsedWithoutHOME) {
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
