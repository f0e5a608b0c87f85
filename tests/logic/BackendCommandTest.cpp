#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

std::shared_ptr<AppDelegate> makeController(FakePlatform& machine, const char* repository) {
  machine.mainBundle.environment["KESTRUNE_REPO_PATH"] = repository;
  return std::make_shared<AppDelegate>(machine.platform);
}

TEST(BackendCommand, PrefersTheCurrentClientAndFallsBackToTheLegacyOne) {
  EXPECT_EQ(AppDelegate::kestruneClientCommand("status"),
            "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client status || "
            "halvask-mac-client status; }");
  EXPECT_EQ(AppDelegate::kestruneClientCommand("refresh"),
            "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client refresh || "
            "halvask-mac-client refresh; }");
}

TEST(BackendCommand, EmptySubcommandLeavesTheFrame) {
  EXPECT_EQ(
      AppDelegate::kestruneClientCommand(""),
      "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client  || halvask-mac-client ; }");
}

TEST(BackendCommand, SubcommandIsInsertedAsItIs) {
  EXPECT_EQ(AppDelegate::kestruneClientCommand("a 'b' $c"),
            "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client a 'b' $c || "
            "halvask-mac-client a 'b' $c; }");
}

TEST(BackendCommand, LineEntersTheRepositoryAndItsEnvironmentFirst) {
  FakePlatform machine;
  EXPECT_EQ(makeController(machine, "/home/u/my repo")->backendCommandLine("refresh"),
            "cd '/home/u/my repo' && source .venv/bin/activate && "
            "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client refresh || "
            "halvask-mac-client refresh; }");
}

TEST(BackendCommand, RepositoryIsQuotedButNotEscaped) {
  FakePlatform machine;
  EXPECT_EQ(
      makeController(machine, "/home/u/it's")->backendCommandLine("status").rfind("cd '/home/u/it's' && ", 0),
      0U);
}

}  // namespace
}  // namespace kestrune::testing
