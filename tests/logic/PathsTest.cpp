#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Paths : ::testing::Test {
  FakePlatform machine;
  FakeMainBundle& bundle = machine.mainBundle;

  std::string repoPath() const { return AppDelegate::resolveRepoPath(bundle); }
  std::shared_ptr<AppDelegate> makeController() { return std::make_shared<AppDelegate>(machine.platform); }
};

TEST_F(Paths, EnvironmentVariableNamesTheRepository) {
  bundle.bundle = "/home/u/repo/dist/Kestrune Menu Client.app";
  for (const char* value : {"/srv/repo", "  /srv/repo  ", "\t/srv/repo\n", "　/srv/repo", "relative"}) {
    bundle.environment["KESTRUNE_REPO_PATH"] = value;
    EXPECT_EQ(repoPath(), value);
  }
  for (const char* value : {"", "   ", "\n\r\n", "\v\f", "　", "\u00A0\u2028 \u0085"}) {
    bundle.environment["KESTRUNE_REPO_PATH"] = value;
    EXPECT_EQ(repoPath(), "/home/u/repo");
  }
}

TEST_F(Paths, RepositoryIsAboveTheLastDistFolder) {
  const std::pair<const char*, const char*> cases[] = {
      {"/home/u/repo/dist/Kestrune Menu Client.app", "/home/u/repo"},
      {"/home/u/repo/dist/Kestrune Menu Client", "/home/u/repo"},
      {"/a/dist/b/dist/X.app", "/a/dist/b"},
      {"/a/dist/b/c", "/a"},
      {"/a/dist/dist/X.app", "/a/dist"},
      {"/dist/X.app", ""},
      {"/a/dist//X.app", "/a"},
  };
  for (const auto& [path, repository] : cases) {
    bundle.bundle = path;
    EXPECT_EQ(repoPath(), repository) << path;
  }
  for (const char* path : {"/Applications/X.app", "/a/dist", "/a/Dist/X.app", "/a/mydist/X.app",
                           "/a/dist2/X.app", "dist/X.app", ""}) {
    bundle.bundle = path;
    EXPECT_EQ(repoPath(), "/home/u/backend") << path;
  }
  bundle.currentDirectory = "/";
  EXPECT_EQ(repoPath(), "/");
}

TEST_F(Paths, EmptySubcommandIsPassedOn) {
  EXPECT_EQ(
      AppDelegate::kestruneClientCommand(""),
      "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client  || halvask-mac-client ; }");
}

TEST_F(Paths, ControllerKeepsItsRepository) {
  bundle.environment["KESTRUNE_REPO_PATH"] = " /no/such/folder ";
  const auto controller = makeController();
  bundle.environment["KESTRUNE_REPO_PATH"] = "/elsewhere";
  EXPECT_EQ(controller->backendCommandLine("").rfind("cd ' /no/such/folder ' && ", 0), 0U);
}

TEST_F(Paths, ExecutableFallsBackToTheRepository) {
  EXPECT_EQ(makeController()->currentExecutablePath(), "/opt/kestrune/KestruneMenuClient");
  bundle.executable.reset();
  EXPECT_EQ(makeController()->currentExecutablePath(),
            "/home/u/backend/dist/Kestrune Menu Client.app/Contents/MacOS/KestruneMenuClient");
  EXPECT_EQ(makeController()->currentAppBundlePath(), "/home/u/backend/dist/Kestrune Menu Client.app");
}

TEST_F(Paths, BundleFallsBackToTheExecutableAndTheRepository) {
  bundle.bundle = "/w/W.app";
  EXPECT_EQ(makeController()->currentAppBundlePath(), "/w/W.app");
  const std::pair<const char*, const char*> cases[] = {
      {"/x/Y.app/Contents/MacOS/Y", "/x/Y.app"},
      {"/x/Y.app/Helpers/Z.app/Contents/Z", "/x/Y.app/Helpers/Z.app"},
      {"/x/Y.application/Y", "/x/Y.app"},
      {"/x/Y.app", "/x/Y.app"},
      {"/usr/bin/KestruneMenuClient", "/home/u/backend/dist/Kestrune Menu Client.app"},
      {"/x/Y.APP/Y", "/home/u/backend/dist/Kestrune Menu Client.app"},
      {"", "/home/u/backend/dist/Kestrune Menu Client.app"},
  };
  for (const auto& [executable, expected] : cases) {
    bundle.executable = executable;
    for (const char* path : {"/x/bin", "/x/Y.app/", "/x/Y.APP", "/x/Y.app2", ""}) {
      bundle.bundle = path;
      EXPECT_EQ(makeController()->currentAppBundlePath(), expected) << path;
    }
  }
}

TEST(BackendCommand, QuotesTheRepositoryWithoutEscaping) {
  FakePlatform machine;
  machine.mainBundle.environment["KESTRUNE_REPO_PATH"] = "/home/u/my repo, it's";
  EXPECT_EQ(std::make_shared<AppDelegate>(machine.platform)->backendCommandLine("refresh"),
            "cd '/home/u/my repo, it's' && source .venv/bin/activate && "
            "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client refresh || "
            "halvask-mac-client refresh; }");
}

}  // namespace
}  // namespace kestrune::testing
