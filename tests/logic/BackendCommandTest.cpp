#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

TEST(BackendCommand, PrefersTheCurrentClientAndFallsBackToTheLegacyOne) {
  EXPECT_EQ(AppDelegate::kestruneClientCommand("status"),
            "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client status || "
            "halvask-mac-client status; }");
  EXPECT_EQ(AppDelegate::kestruneClientCommand("a 'b' $c"),
            "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client a 'b' $c || "
            "halvask-mac-client a 'b' $c; }");
}

TEST(BackendCommand, LineEntersTheRepositoryQuotedButNotEscaped) {
  FakePlatform machine;
  machine.mainBundle.environment["KESTRUNE_REPO_PATH"] = "/home/u/my repo, it's";
  EXPECT_EQ(std::make_shared<AppDelegate>(machine.platform)->backendCommandLine("refresh"),
            "cd '/home/u/my repo, it's' && source .venv/bin/activate && "
            "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client refresh || "
            "halvask-mac-client refresh; }");
}

}  // namespace
}  // namespace kestrune::testing
