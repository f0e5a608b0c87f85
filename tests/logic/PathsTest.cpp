#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

/// Where a program lies, and what it was given.
struct Paths : ::testing::Test {
  FakePlatform machine;
  FakeMainBundle& bundle = machine.mainBundle;

  std::string repoPath() const { return AppDelegate::resolveRepoPath(bundle); }
  std::shared_ptr<AppDelegate> makeController() { return std::make_shared<AppDelegate>(machine.platform); }
};

TEST_F(Paths, EnvironmentNamesTheRepository) {
  bundle.environment["KESTRUNE_REPO_PATH"] = "/srv/repo";
  bundle.bundle = "/home/u/repo/dist/Kestrune Menu Client.app";
  EXPECT_EQ(repoPath(), "/srv/repo");
}

TEST_F(Paths, EnvironmentIsUsedWithItsBlanks) {
  for (const char* value : {"  /srv/repo  ", "\t/srv/repo\n", "　/srv/repo", "relative", "/srv/repo/"}) {
    bundle.environment["KESTRUNE_REPO_PATH"] = value;
    EXPECT_EQ(repoPath(), value);
  }
}

TEST_F(Paths, BlankEnvironmentIsIgnored) {
  for (const char* value : {"", "   ", "\t", "\n\r\n", "\v\f", "　", "\u00A0\u2028 \u0085"}) {
    bundle.environment["KESTRUNE_REPO_PATH"] = value;
    EXPECT_EQ(repoPath(), "/home/u/backend");
  }
}

TEST_F(Paths, RepositoryIsWhatLiesAboveTheLastDistFolder) {
  struct Case {
    const char* bundle;
    const char* repository;
  };
  const Case cases[] = {
      {"/home/u/repo/dist/Kestrune Menu Client.app", "/home/u/repo"},
      {"/home/u/repo/dist/Kestrune Menu Client", "/home/u/repo"},
      {"/a/dist/b/dist/X.app", "/a/dist/b"},
      {"/a/dist/b/c", "/a"},
      {"/a/dist/dist/X.app", "/a/dist"},
      {"/dist/X.app", ""},
      {"/a/dist//X.app", "/a"},
  };
  for (const Case& each : cases) {
    bundle.bundle = each.bundle;
    EXPECT_EQ(repoPath(), each.repository) << each.bundle;
  }
}

TEST_F(Paths, WithoutADistFolderTheWorkingDirectoryIsTheRepository) {
  for (const char* path : {"/Applications/X.app", "/a/dist", "/a/Dist/X.app", "/a/mydist/X.app",
                           "/a/dist2/X.app", "dist/X.app", ""}) {
    bundle.bundle = path;
    EXPECT_EQ(repoPath(), "/home/u/backend") << path;
  }
}

TEST_F(Paths, WorkingDirectoryMayBeTheRoot) {
  bundle.currentDirectory = "/";
  EXPECT_EQ(repoPath(), "/");
}

TEST_F(Paths, ControllerKeepsTheRepositoryItWasMadeWith) {
  bundle.environment["KESTRUNE_REPO_PATH"] = " /srv/repo ";
  const auto controller = makeController();
  EXPECT_EQ(AppDelegateState{*controller}.repoPath, " /srv/repo ");
  EXPECT_EQ(controller->backendCommandLine("").rfind("cd ' /srv/repo ' && ", 0), 0U);
}

TEST_F(Paths, ExecutableIsWhatTheBundleReports) {
  bundle.executable = "/x/Y.app/Contents/MacOS/Y";
  EXPECT_EQ(makeController()->currentExecutablePath(), "/x/Y.app/Contents/MacOS/Y");
}

TEST_F(Paths, WithoutAnExecutableItIsExpectedInTheRepository) {
  bundle.executable.reset();
  EXPECT_EQ(makeController()->currentExecutablePath(),
            "/home/u/backend/dist/Kestrune Menu Client.app/Contents/MacOS/KestruneMenuClient");
}

TEST_F(Paths, BundleThatEndsInAppIsItself) {
  bundle.bundle = "/x/Y.app";
  bundle.executable = "/z/Z.app/Contents/MacOS/Z";
  EXPECT_EQ(makeController()->currentAppBundlePath(), "/x/Y.app");
}

TEST_F(Paths, OtherwiseTheBundleIsFoundFromTheExecutable) {
  struct Case {
    const char* executable;
    const char* bundle;
  };
  const Case cases[] = {
      {"/x/Y.app/Contents/MacOS/Y", "/x/Y.app"},
      {"/x/Y.app/Helpers/Z.app/Contents/Z", "/x/Y.app/Helpers/Z.app"},
      {"/x/Y.application/Y", "/x/Y.app"},
      {"/x/Y.app", "/x/Y.app"},
  };
  for (const Case& each : cases) {
    bundle.executable = each.executable;
    for (const char* path : {"/x/bin", "/x/Y.app/", "/x/Y.APP", "/x/Y.app2", ""}) {
      bundle.bundle = path;
      EXPECT_EQ(makeController()->currentAppBundlePath(), each.bundle) << path;
    }
  }
}

TEST_F(Paths, ExecutableOutsideAnyBundleGivesTheBundleInTheRepository) {
  for (const char* executable : {"/usr/bin/KestruneMenuClient", "/x/Y.APP/Y", ""}) {
    bundle.executable = executable;
    EXPECT_EQ(makeController()->currentAppBundlePath(), "/home/u/backend/dist/Kestrune Menu Client.app");
  }
}

TEST_F(Paths, WithoutAnExecutableTheBundleIsExpectedInTheRepository) {
  bundle.executable.reset();
  bundle.environment["KESTRUNE_REPO_PATH"] = "/srv/repo";
  EXPECT_EQ(makeController()->currentAppBundlePath(), "/srv/repo/dist/Kestrune Menu Client.app");
}

TEST_F(Paths, SuffixOfTheMissingExecutableIsSearchedFromTheEnd) {
  bundle.executable.reset();
  bundle.environment["KESTRUNE_REPO_PATH"] = "/srv/old.app/repo";
  EXPECT_EQ(makeController()->currentAppBundlePath(), "/srv/old.app/repo/dist/Kestrune Menu Client.app");
}

TEST_F(Paths, NobodyAsksWhetherTheRepositoryExists) {
  bundle.environment["KESTRUNE_REPO_PATH"] = "/no/such/folder";
  EXPECT_EQ(AppDelegateState{*makeController()}.repoPath, "/no/such/folder");
  EXPECT_TRUE(machine.processes.launches.empty());
}

}  // namespace
}  // namespace kestrune::testing
