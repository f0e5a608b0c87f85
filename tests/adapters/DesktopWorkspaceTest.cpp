#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "adapters/desktop/DesktopWorkspace.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/StandInDialogs.h"
#include "tests/rig/StandardErrorText.h"

namespace kestrune::testing {
namespace {

using Texts = std::vector<std::string>;

/// Sets PATH to a temporary folder. The programs in the folder record how they are started.
class RecordingMachine {
 public:
  RecordingMachine() { std::filesystem::create_directory(folder.file("bin")); }

  /// Adds a recording program to PATH, and returns the path of its file.
  std::string add(const std::string& name, mode_t mode = 0700) {
    const std::string program = folder.file("bin/" + name);
    put(program,
        "#!/bin/sh\nprintf '%s\\0' " + name + " \"$KESTRUNE_MENU_CLIENT_RELAUNCH\" \"$$\" \"$@\" >>'" +
            folder.file("record") + "'\n",
        mode);
    return program;
  }
  void remove(const std::string& name) { std::filesystem::remove(folder.file("bin/" + name)); }

  /// Returns for each started program: its name, $KESTRUNE_MENU_CLIENT_RELAUNCH, its PID, its arguments.
  Texts record() const {
    std::ifstream file(folder.file("record"));
    Texts entries;
    for (std::string entry; std::getline(file, entry, '\0');) entries.push_back(entry);
    return entries;
  }
  /// Returns `record()` without the first program's PID, which a test cannot know in advance.
  Texts started() const {
    Texts entries = record();
    if (entries.size() > 2) entries.erase(entries.begin() + 2);
    return entries;
  }

  const ScratchFolder folder;
  const ScopedVariable path{"PATH", folder.file("bin")};
  const ScopedVariable mark{relaunchVariable, std::nullopt};
};

struct DesktopWorkspaceOn : ::testing::Test {
  DesktopWorkspaceOn() { bundle.currentDirectory = machine.folder.file("there"); }

  void openPath(const std::string& path, Starter starter = Starter::desktop) {
    DesktopWorkspace(loop, bundle, {}, starter).open(path);
    EXPECT_TRUE(hasNoChildren(loop));
  }

  const SignalState restored;
  EventLoop loop;
  RecordingMachine machine;
  const StandardErrorText errors;
  FakeMainBundle bundle;
};

TEST_F(DesktopWorkspaceOn, ADesktopOpensFilesByXdgOpen) {
  machine.add("xdg-open");
  machine.add("gio");
  openPath("/a/folder");
  EXPECT_EQ(machine.started(), (Texts{"xdg-open", "", "/a/folder"}));
  EXPECT_EQ(errors.text(), "");
}

TEST_F(DesktopWorkspaceOn, ADesktopWithoutXdgOpenUsesGio) {
  machine.add("gio");
  openPath("/a/folder");
  EXPECT_EQ(machine.started(), (Texts{"gio", "", "open", "/a/folder"}));
  machine.add("xdg-open", 0400);
  openPath("/a/folder");
  EXPECT_EQ(machine.record().size(), 10u) << "where xdg-open may not run";
  EXPECT_EQ(errors.text(), "");
}

TEST_F(DesktopWorkspaceOn, AServiceOpensFilesInAScopeOfTheirOwn) {
  const std::string path = "/a 'folder'";
  const std::string tool = machine.add("systemd-run");
  machine.add("xdg-open");
  openPath(path, Starter::service);
  Texts entries = machine.record();
  ASSERT_EQ(entries.size(), 8u + 9u);
  entries.erase(entries.begin(), entries.begin() + 11);
  EXPECT_EQ(entries, (Texts{"--user", "--scope", "--quiet", "--collect", "xdg-open", path}));
  std::ofstream(tool) << "#!/bin/sh\nexit 1\n";
  machine.remove("xdg-open");
  machine.add("gio");
  openPath(path, Starter::service);
  entries = machine.record();
  EXPECT_EQ((Texts{entries.end() - 2, entries.end()}), (Texts{"open", path})) << "where systemd-run fails";
  EXPECT_EQ(entries.size(), 17u + 5u);
}

TEST_F(DesktopWorkspaceOn, AFailureToOpenIsReportedOnce) {
  machine.add("gio", 0400);
  // A process prints each error message of `open` only once. So call `open` in a forked child: then this
  // process can repeat the test (--gtest_repeat).
  ForkedProgram program([this](const ForkedProgram::Say&) {
    EventLoop own;
    for (int each = 0; each < 2; ++each)
      DesktopWorkspace(own, bundle, {}, Starter::desktop).open("/a/folder");
  });
  program.waitForEnd();
  EXPECT_EQ(program.standardError(),
            "KestruneMenuClient: cannot open /a/folder"
            ": xdg-open: No such file or directory: gio: Permission denied; install xdg-utils\n");
}

TEST_F(DesktopWorkspaceOn, AnyNameIsOpenedAsOneAbsoluteArgument) {
  machine.add("xdg-open");
  std::size_t opened = 0;
  for (const std::string name :
       {"--help", "-", "two words", "two\nlines\n", "https://example.org/", "$(touch x);'\"", "", "資料夾"}) {
    openPath(name);
    EXPECT_EQ(machine.record().size(), 4 * ++opened) << name;
    EXPECT_EQ(machine.record().back(), bundle.currentDirectory + "/" + name);
  }
}

TEST_F(DesktopWorkspaceOn, OpeningDoesNotWaitForTheProgram) {
  machine.add("xdg-open");
  const std::string gate = machine.folder.file("gate");
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  std::ofstream(machine.folder.file("bin/xdg-open"), std::ios::app) << ": <'" << gate << "'\n";
  DesktopWorkspace(loop, bundle, {}, Starter::desktop).open("/a/folder");
  // This open blocks until the program has opened the FIFO, so the program is running from here on.
  const FileDescriptor held(open(gate.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(machine.started(), (Texts{"xdg-open", "", "/a/folder"}));
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(DesktopWorkspaceOn, ANewInstanceGetsTheArgumentsOfThisOne) {
  bundle.executable = machine.add("client");
  DesktopWorkspace workspace(loop, bundle, {"--one", "two words"}, Starter::desktop);
  EXPECT_TRUE(workspace.openNewInstance(bundle.bundlePath()));
  EXPECT_TRUE(hasNoChildren(loop));
  EXPECT_EQ(machine.started(), (Texts{"client", std::to_string(getpid()), "--one", "two words"}));
  EXPECT_NE(machine.record().at(2), std::to_string(getpid()));
  EXPECT_FALSE(workspace.replacesThisProcess());
  EXPECT_EQ(std::getenv(relaunchVariable), nullptr) << "this process is none that replaces another";
}

TEST_F(DesktopWorkspaceOn, AFailureToStartANewInstanceHasAReason) {
  bundle.executable = machine.add("client");
  DesktopWorkspace workspace(loop, bundle, {}, Starter::desktop);
  machine.remove("client");
  EXPECT_EQ(workspace.openNewInstance(bundle.bundlePath()), Failure{"No such file or directory"});
  machine.add("client", 0400);
  EXPECT_EQ(workspace.openNewInstance(bundle.bundlePath()), Failure{"Permission denied"});
  bundle.executable = std::nullopt;
  EXPECT_EQ(DesktopWorkspace(loop, bundle, {}, Starter::desktop).openNewInstance(bundle.bundlePath()),
            Failure{"No such file or directory"});
  EXPECT_EQ(machine.record(), Texts{});
}

TEST_F(DesktopWorkspaceOn, InPlaceThisProcessCallsExecAtItsEnd) {
  bundle.executable = machine.add("client");
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    DesktopWorkspace workspace(loop, bundle, {"--terminal"}, Starter::terminal);
    say(workspace.replacesThisProcess() ? "too early" : "not yet");
    if (const auto opened = workspace.openNewInstance(""); !opened) say(opened.reason());
    say(machine.record().empty() && workspace.replacesThisProcess() ? "will" : "will not");
    workspace.replaceThisProcess();
    say("stayed");
  });
  EXPECT_EQ(program.line(), "not yet");
  EXPECT_EQ(program.line(), "will");
  EXPECT_EQ(program.line(), "end");
  const std::string pid = std::to_string(program.pid());
  program.waitForEnd();
  EXPECT_EQ(machine.record(), (Texts{"client", pid, pid, "--terminal"}));
}

TEST_F(DesktopWorkspaceOn, InPlaceAFailedExecReturns) {
  bundle.executable = machine.add("client");
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    DesktopWorkspace workspace(loop, bundle, {}, Starter::terminal);
    workspace.openNewInstance("");
    machine.remove("client");
    workspace.replaceThisProcess();
    say("stayed");
  });
  EXPECT_EQ(program.line(), "stayed");
  program.waitForEnd();
  EXPECT_EQ(program.standardError(),
            "KestruneMenuClient: cannot start " + *bundle.executable + " again: No such file or directory\n");
}

}  // namespace
}  // namespace kestrune::testing
