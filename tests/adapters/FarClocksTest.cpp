#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/rig/Namespaces.h"
#include "tests/rig/RealProgram.h"

namespace kestrune::testing {
namespace {

/// Where no machine has slept, the clock that counts sleep and the one that does not say the same, and taking
/// one for the other goes unnoticed. So the tests of whatever looks at a clock run once more where they are a
/// year apart.
TEST(FarClocks, AreNotMixedUp) {
  requireNamespaces("--time --boottime 1 --fork");
  constexpr double year = 365 * 24 * 3600.0;
  const std::string tests = std::filesystem::read_symlink("/proc/self/exe");
  const std::string filter =
      "ClockContract*:TimerContract*:*MainQueue*:*QueueContract*:EventLoopAlone*:RealShell.Stops*";
  std::vector<std::string> words{"unshare"};
  if (needsUserNamespace()) words.insert(words.end(), {"--user", "--map-root-user"});
  words.insert(words.end(), {"--time", "--boottime", std::to_string(static_cast<long>(year)), "--fork",
                             "--kill-child", "--", "sh", "-c", R"(cat /proc/uptime && exec "$0" "$@" 2>&1)",
                             tests, "--gtest_brief=1", "--gtest_filter=" + filter});
  RealProgram program(words);
  EXPECT_GT(std::stod(program.firstLine()), year);
  EXPECT_TRUE(program.endsWithin(Seconds{45})) << "it hangs: " << program.output();
  EXPECT_TRUE(program.says("[  PASSED  ] ")) << program.output() << program.errors();
  EXPECT_FALSE(program.says("FAILED")) << program.output();
}

}  // namespace
}  // namespace kestrune::testing
