#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "adapters/files/ProgramBundle.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;

struct FakeBundleMaker {
  FakeMainBundle bundle;

  MainBundle& withVariable(const std::string& name, const std::string& value) {
    bundle.environment[name] = value;
    return bundle;
  }
};

struct ProgramBundleMaker {
  std::unique_ptr<ScopedVariable> variable;
  ProgramBundle bundle;

  MainBundle& withVariable(const std::string& name, const std::string& value) {
    variable = std::make_unique<ScopedVariable>(name, value);
    return bundle;
  }
};

template <typename Maker>
struct MainBundleContract : ::testing::Test, Maker {};

using Makers = ::testing::Types<FakeBundleMaker, ProgramBundleMaker>;
TYPED_TEST_SUITE(MainBundleContract, Makers);

TYPED_TEST(MainBundleContract, IsAFolderThatHoldsTheProgram) {
  const std::string folder = this->bundle.bundlePath();
  EXPECT_TRUE(folder.starts_with('/')) << folder;
  EXPECT_FALSE(folder.ends_with('/')) << folder;
  EXPECT_EQ(fs::path(this->bundle.executablePath().value()).parent_path(), folder);
}

TYPED_TEST(MainBundleContract, WorksInAFolder) {
  EXPECT_TRUE(this->bundle.currentDirectoryPath().starts_with('/'));
}

TYPED_TEST(MainBundleContract, HasNoResourceThatIsMissing) {
  EXPECT_EQ(this->bundle.pathForResource("no-such-resource", "png"), std::nullopt);
}

TYPED_TEST(MainBundleContract, TellsAnEmptyVariableFromOneThatIsNotSet) {
  EXPECT_EQ(this->bundle.environmentVariable("KESTRUNE_TEST_VARIABLE"), std::nullopt);
  EXPECT_EQ(this->withVariable("KESTRUNE_TEST_VARIABLE", "").environmentVariable("KESTRUNE_TEST_VARIABLE"),
            "");
}

TYPED_TEST(MainBundleContract, KeepsTheBlanksOfAVariable) {
  EXPECT_EQ(
      this->withVariable("KESTRUNE_TEST_VARIABLE", "  a b ").environmentVariable("KESTRUNE_TEST_VARIABLE"),
      "  a b ");
}

}  // namespace
}  // namespace kestrune::testing
