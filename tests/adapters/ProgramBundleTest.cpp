#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "adapters/files/ProgramBundle.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/ScopedVariable.h"

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;

/// A program in a prefix of its own, that tells what it knows of itself.
struct RunningProgram : ::testing::Test, RealChildren {
  const std::string prefix = fs::canonical(folder.file("."));
  const std::string bin = prefix + "/Kestrune Menu Client";
  const std::string program = bin + "/客戶端 1";

  RunningProgram() {
    fs::create_directory(bin);
    fs::copy_file(PRINT_BUNDLE, program);
  }

  std::string say(const std::string& started, const Arguments& arguments) {
    const auto launched = processes.launch(started, arguments);
    EXPECT_TRUE(launched);
    std::string said = (*launched)->readOutput(patience);
    EXPECT_TRUE(ends(**launched));
    EXPECT_EQ((*launched)->terminationStatus(), 0) << said;
    return said;
  }
  std::string say(const Arguments& arguments) { return say(program, arguments); }
  std::string paths() const { return bin + "\n" + program + "\n" + fs::current_path().string() + "\n"; }

  std::string putResource(const std::string& place) const {
    const fs::path path = fs::path(prefix) / place;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "a resource";
    return path;
  }
};

TEST_F(RunningProgram, KnowsItsPathItsFolderAndWhereItWorks) {
  EXPECT_EQ(say({"paths"}), paths());
}

TEST_F(RunningProgram, KnowsItsRealPathWhenItWasStartedThroughALink) {
  fs::create_symlink(program, prefix + "/link");
  EXPECT_EQ(say(prefix + "/link", {"paths"}), paths());
}

TEST_F(RunningProgram, KeepsToTheFolderWhereItWasStarted) {
  EXPECT_EQ(say({"chdir", "/", "paths"}), paths());
}

TEST_F(RunningProgram, KeepsItsPathWhenItIsReplacedOrTakenAway) {
  EXPECT_EQ(say({"remove", program, "paths"}), paths());
}

TEST_F(RunningProgram, KeepsItsPathWhenItsFolderIsMoved) {
  EXPECT_EQ(say({"rename", bin, prefix + "/moved", "paths"}), paths());
}

TEST_F(RunningProgram, FindsAResourceBesideItself) {
  const std::string logo = putResource("Kestrune Menu Client/resources/logo.png");
  EXPECT_EQ(say({"resource", "logo", "png"}), logo + "\n");
}

TEST_F(RunningProgram, FindsAResourceInThePrefixThatItWasInstalledTo) {
  const std::string logo = putResource("share/kestrune-menu-client/logo.png");
  EXPECT_EQ(say({"resource", "logo", "png"}), logo + "\n");
}

TEST_F(RunningProgram, FindsTheResourceBesideItselfFirst) {
  putResource("share/kestrune-menu-client/logo.png");
  const std::string logo = putResource("Kestrune Menu Client/resources/logo.png");
  EXPECT_EQ(say({"resource", "logo", "png"}), logo + "\n");
}

TEST_F(RunningProgram, FindsNoResourceOfAnotherNameOrKind) {
  putResource("Kestrune Menu Client/resources/logo.png");
  putResource("Kestrune Menu Client/logo.svg");
  EXPECT_EQ(say({"resource", "logo", "icns"}), "none\n");
  EXPECT_EQ(say({"resource", "Logo", "png"}), "none\n");
  EXPECT_EQ(say({"resource", "logo", "svg"}), "none\n");
}

TEST_F(RunningProgram, KnowsItsEnvironment) {
  const ScopedVariable set("KESTRUNE_TEST_VARIABLE", "  值 ");
  EXPECT_EQ(say({"variable", "KESTRUNE_TEST_VARIABLE"}), "  值 \n");
  const ScopedVariable empty("KESTRUNE_TEST_VARIABLE", "");
  EXPECT_EQ(say({"variable", "KESTRUNE_TEST_VARIABLE"}), "\n");
  const ScopedVariable unset("KESTRUNE_TEST_VARIABLE", std::nullopt);
  EXPECT_EQ(say({"variable", "KESTRUNE_TEST_VARIABLE"}), "none\n");
}

}  // namespace
}  // namespace kestrune::testing
