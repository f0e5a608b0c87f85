#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>

#include "adapters/desktop/DesktopWorkspace.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/StandInDialogs.h"
#include "tests/rig/StandardErrorText.h"

namespace kestrune::testing {
namespace {

using Texts = std::vector<std::string>;

/// A machine whose programs write down how they are started.
class RecordingMachine {
 public:
  RecordingMachine() { std::filesystem::create_directory(folder.file("bin")); }

  /// Adds a program, and returns where it is.
  std::string add(const std::string& name,
                  std::filesystem::perms permissions = std::filesystem::perms::owner_all) {
    const std::string program = folder.file("bin/" + name);
    std::ofstream(program) << "#!/bin/sh\nprintf '%s\\0' " << name
                           << " \"$KESTRUNE_MENU_CLIENT_RELAUNCH\" \"$$\" \"$@\" >>'" << folder.file("record")
                           << "'\n";
    std::filesystem::permissions(program, permissions);
    return program;
  }
  void remove(const std::string& name) { std::filesystem::remove(folder.file("bin/" + name)); }

  /// Name, mark of the relaunch, process number and arguments of all programs that were started.
  Texts record() const {
    std::ifstream file(folder.file("record"));
    Texts entries;
    for (std::string entry; std::getline(file, entry, '\0');) entries.push_back(entry);
    return entries;
  }
  /// The same without the process number of the first.
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

  void openOnDesktop(const std::string& path) {
    DesktopWorkspace(loop, bundle, {}, false).open(path);
    EXPECT_TRUE(hasNoChildren(loop));
  }

  const SignalState restored;
  EventLoop loop;
  RecordingMachine machine;
  const StandardErrorText errors;
  FakeMainBundle bundle;
};

TEST_F(DesktopWorkspaceOn, ADesktopOpensByItsCommonWay) {
  machine.add("xdg-open");
  machine.add("gio");
  openOnDesktop("/a/folder");
  EXPECT_EQ(machine.started(), (Texts{"xdg-open", "", "/a/folder"}));
  EXPECT_EQ(errors.text(), "");
}

TEST_F(DesktopWorkspaceOn, ADesktopWithoutItOpensByGio) {
  machine.add("gio");
  openOnDesktop("/a/folder");
  EXPECT_EQ(machine.started(), (Texts{"gio", "", "open", "/a/folder"}));
  EXPECT_EQ(errors.text(), "");
}

TEST_F(DesktopWorkspaceOn, ADesktopWhoseCommonWayMayNotRunOpensByGio) {
  machine.add("xdg-open", std::filesystem::perms::owner_read);
  machine.add("gio");
  openOnDesktop("/a/folder");
  EXPECT_EQ(machine.started(), (Texts{"gio", "", "open", "/a/folder"}));
}

TEST_F(DesktopWorkspaceOn, ADesktopWithNeitherIsToldOnce) {
  machine.add("gio", std::filesystem::perms::owner_read);
  // In a process of its own, because a complaint is made only once in the life of one.
  ForkedProgram program([this](const ForkedProgram::Say&) {
    EventLoop own;
    for (int each = 0; each < 2; ++each) DesktopWorkspace(own, bundle, {}, false).open("/a/folder");
  });
  program.waitForEnd();
  EXPECT_EQ(program.standardError(),
            "KestruneMenuClient: cannot open a folder or file"
            ": xdg-open: No such file or directory: gio: Permission denied\n");
}

struct NameToOpen : DesktopWorkspaceOn, ::testing::WithParamInterface<std::string> {};
INSTANTIATE_TEST_SUITE_P(Each, NameToOpen,
                         ::testing::Values("--help", "-", "two words", "two\nlines\n", "https://example.org/",
                                           "$(touch x);'\"", "", "資料夾"),
                         [](const auto& name) { return "Number" + std::to_string(name.index); });

TEST_P(NameToOpen, IsOneAbsoluteArgument) {
  machine.add("xdg-open");
  openOnDesktop(GetParam());
  EXPECT_EQ(machine.started(), (Texts{"xdg-open", "", bundle.currentDirectory + "/" + GetParam()}));
}

TEST_F(DesktopWorkspaceOn, ADesktopDoesNotWaitForWhatItOpens) {
  machine.add("xdg-open");
  const std::string gate = machine.folder.file("gate");
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  std::ofstream(machine.folder.file("bin/xdg-open"), std::ios::app) << ": <'" << gate << "'\n";
  DesktopWorkspace(loop, bundle, {}, false).open("/a/folder");
  // Opens only for a program that is there to be held back.
  const FileDescriptor held(open(gate.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(machine.started(), (Texts{"xdg-open", "", "/a/folder"}));
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(DesktopWorkspaceOn, ADesktopStartsANewInstanceAsThisOneWasStarted) {
  bundle.executable = machine.add("client");
  DesktopWorkspace workspace(loop, bundle, {"--one", "two words"}, false);
  EXPECT_TRUE(workspace.openNewInstance(bundle.bundlePath()));
  EXPECT_TRUE(hasNoChildren(loop));
  EXPECT_EQ(machine.started(), (Texts{"client", std::to_string(getpid()), "--one", "two words"}));
  EXPECT_NE(machine.record().at(2), std::to_string(getpid()));
  EXPECT_FALSE(workspace.replacesThisProcess());
  EXPECT_EQ(std::getenv(relaunchVariable), nullptr) << "this process is none that replaces another";
}

TEST_F(DesktopWorkspaceOn, ADesktopTellsWhyThereIsNoNewInstance) {
  bundle.executable = machine.add("client");
  DesktopWorkspace workspace(loop, bundle, {}, false);
  machine.remove("client");
  EXPECT_EQ(workspace.openNewInstance(bundle.bundlePath()), Failure{"No such file or directory"});
  machine.add("client", std::filesystem::perms::owner_read);
  EXPECT_EQ(workspace.openNewInstance(bundle.bundlePath()), Failure{"Permission denied"});
  EXPECT_EQ(machine.record(), Texts{});
}

TEST_F(DesktopWorkspaceOn, AMachineThatCannotTellWhatRunsStartsNoNewInstance) {
  bundle.executable = std::nullopt;
  DesktopWorkspace workspace(loop, bundle, {}, false);
  EXPECT_EQ(workspace.openNewInstance(bundle.bundlePath()), Failure{"No such file or directory"});
}

TEST_F(DesktopWorkspaceOn, ATerminalBecomesTheNewInstanceAtTheEnd) {
  bundle.executable = machine.add("client");
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    DesktopWorkspace workspace(loop, bundle, {"--terminal"}, true);
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

TEST_F(DesktopWorkspaceOn, ATerminalLosesNoSignalOnTheWay) {
  bundle.executable = machine.add("client");
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    EventLoop own;
    const auto source = own.onSignal(SIGUSR1, [] {});
    DesktopWorkspace workspace(own, bundle, {}, true);
    workspace.openNewInstance("");
    raise(SIGUSR1);
    workspace.replaceThisProcess();
    say("stayed");
  });
  EXPECT_EQ(program.line(), "end");
  const std::string pid = std::to_string(program.pid());
  program.waitForEnd();
  EXPECT_EQ(machine.started(), (Texts{"client", pid}));
}

TEST_F(DesktopWorkspaceOn, ATerminalStaysWhenTheProgramHasGoneMeanwhile) {
  bundle.executable = machine.add("client");
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    DesktopWorkspace workspace(loop, bundle, {}, true);
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

/// A workspace and what the user finds of it.
class WorkspaceFace {
 public:
  virtual ~WorkspaceFace() = default;
  virtual Workspace& workspace() = 0;
  /// What was opened, and "new instance" for each one.
  virtual Texts happened() = 0;
  virtual void breakProgram() = 0;
};

class FakeWorkspaceFace final : public WorkspaceFace {
 public:
  Workspace& workspace() override { return fake; }
  Texts happened() override {
    Texts all;
    for (const auto& call : log) {
      all.push_back(call.starts_with("open new instance") ? "new instance"
                                                          : call.substr(std::string("open ").size()));
    }
    return all;
  }
  void breakProgram() override { fake.launchError = "broken"; }

 private:
  CallLog log;
  FakeWorkspace fake{log};
};

class DesktopWorkspaceFace final : public WorkspaceFace {
 public:
  DesktopWorkspaceFace() {
    machine.add("xdg-open");
    bundle.executable = machine.add("client");
    real = std::make_unique<DesktopWorkspace>(loop, bundle, Texts{"argument"}, false);
  }
  Workspace& workspace() override { return *real; }
  Texts happened() override {
    EXPECT_TRUE(hasNoChildren(loop));
    Texts all;
    const Texts record = machine.record();
    for (std::size_t at = 0; at + 3 < record.size(); at += 4) {
      all.push_back(record[at] == "client" ? "new instance" : record[at + 3]);
    }
    return all;
  }
  void breakProgram() override { machine.remove("client"); }

 private:
  const SignalState restored;
  EventLoop loop;
  RecordingMachine machine;
  FakeMainBundle bundle;
  std::unique_ptr<DesktopWorkspace> real;
};

struct WorkspaceMaker {
  const char* name;
  std::unique_ptr<WorkspaceFace> (*make)();

  friend void PrintTo(const WorkspaceMaker& made, std::ostream* out) { *out << made.name; }
};

const WorkspaceMaker workspaceMakers[] = {
    {"Fake", []() -> std::unique_ptr<WorkspaceFace> { return std::make_unique<FakeWorkspaceFace>(); }},
    {"Desktop", []() -> std::unique_ptr<WorkspaceFace> { return std::make_unique<DesktopWorkspaceFace>(); }},
};

struct WorkspaceContract : ::testing::TestWithParam<WorkspaceMaker> {
  std::unique_ptr<WorkspaceFace> face = GetParam().make();
};
INSTANTIATE_TEST_SUITE_P(Each, WorkspaceContract, ::testing::ValuesIn(workspaceMakers),
                         [](const auto& made) { return made.param.name; });

TEST_P(WorkspaceContract, OpensEachThingOnce) {
  face->workspace().open("/a/folder");
  EXPECT_EQ(face->happened(), Texts{"/a/folder"});
  face->workspace().open("/another");
  EXPECT_EQ(face->happened(), (Texts{"/a/folder", "/another"}));
}

TEST_P(WorkspaceContract, KnowsWhereTheCodexAppIs) {
  EXPECT_EQ(face->workspace().codexAppPath(), "/Applications/Codex.app");
  EXPECT_EQ(face->happened(), Texts{});
}

TEST_P(WorkspaceContract, StartsANewInstance) {
  EXPECT_TRUE(face->workspace().openNewInstance("/opt/kestrune"));
  EXPECT_EQ(face->happened(), Texts{"new instance"});
}

TEST_P(WorkspaceContract, TellsWhyItCannotStartANewInstance) {
  face->breakProgram();
  EXPECT_NE(face->workspace().openNewInstance("/opt/kestrune").reason(), "");
}

}  // namespace
}  // namespace kestrune::testing
