#include "host/Diagnosis.h"

#include <sys/wait.h>

#include <cstring>
#include <filesystem>

#include "adapters/children/ChildProcesses.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/StubService.h"

namespace kestrune::testing {
namespace {

/// Answers calls of the method `member` with `values`, and refuses all other calls.
template <typename... Values>
StubService::Behaviour answering(const char* member, const char* types, Values... values) {
  return [=](sd_bus_message* call) {
    return isMethod(call, member) && sd_bus_reply_method_return(call, types, values...) >= 0;
  };
}

/// Behaves as a session manager with one inhibitor: answers GetInhibitors, and GetAppId of the inhibitor.
bool sessionManager(sd_bus_message* call) {
  if (isMethod(call, "GetInhibitors")) return sd_bus_reply_method_return(call, "ao", 1, "/inhibitor/1") >= 0;
  return isMethod(call, "GetAppId") && sd_bus_reply_method_return(call, "s", "a\x1b[31mplayer") >= 0;
}

bool watcher(sd_bus_message* call) {
  const char *interface = nullptr, *name = nullptr;
  sd_bus_message_read(call, "ss", &interface, &name);
  if (std::strcmp(name, "IsStatusNotifierHostRegistered") == 0)
    return sd_bus_reply_method_return(call, "v", "b", 0) >= 0;
  return sd_bus_reply_method_return(call, "v", "as", 2, ":1.2/Item", ":1.3/Item") >= 0;
}

void expectIn(const std::string& text, const std::string& part) {
  EXPECT_NE(text.find(part), text.npos) << text;
}

struct Diagnosis : ::testing::Test {
  SignalState restored;
  PrivateBus daemon;
  const ScopedVariable systemAddress{"DBUS_SYSTEM_BUS_ADDRESS", daemon.address()};
  const ScopedVariable noDisplay{"DISPLAY", ""}, noWayland{"WAYLAND_DISPLAY", ""};
  const ScratchFolder programs;
  ChildProcesses processes;

  void TearDown() override {
    daemon.stop();
    while (wait(nullptr) > 0) {  // a script may still run after it has closed its output
    }
  }

  std::string described() { return describeSession(processes, "/nowhere/windows"); }

  /// Returns `described()` while PATH contains only `timeout` and the program `name`, a bash script that
  /// consists of `lines`.
  std::string describedWith(const std::string& name, const std::string& lines) {
    const std::string program = programs.file(name), timeout = programs.file("timeout");
    if (!std::filesystem::exists(timeout)) std::filesystem::create_symlink("/usr/bin/timeout", timeout);
    put(program, "#!/bin/bash\n" + lines, 0755);
    const ScopedVariable path("PATH", programs.file(""));
    return described();
  }
};

TEST_F(Diagnosis, ListsServicesAndInhibitors) {
  daemon.start();
  const std::string address = daemon.address();
  const StubService tray(address, "org.kde.StatusNotifierWatcher", &watcher);
  const StubService notifier(address, "org.freedesktop.Notifications",
                             answering("GetServerInformation", "ssss", "note", "maker", "1.2", "1"));
  const StubService session(address, "org.gnome.SessionManager", &sessionManager);
  const StubService power(address, "org.freedesktop.PowerManagement", answering("HasInhibit", "b", 1));
  const StubService login(
      address, "org.freedesktop.login1",
      answering("ListInhibitors", "a(ssssuu)", 1, "idle", "Kestrune", "why", "block", 0u, 42u));
  const std::string text = described();
  const std::string process = "(process " + std::to_string(getpid()) + ")\n";
  expectIn(text, "Session bus: answers\nSystem bus: answers\nTray: ");
  expectIn(text, process +
                     "  shows items: no, no tray host is registered\n  item: :1.2/Item\n  item: :1.3/Item\n"
                     "Notifications: note 1.2 (maker)\nServices that can keep the machine awake:\n");
  expectIn(text, "  org.freedesktop.ScreenSaver: none\n");
  for (const char* const held :
       {"  org.gnome.SessionManager: aplayer\n", "  org.freedesktop.PowerManagement: unknown program\n",
        "  org.freedesktop.login1: idle (block) by Kestrune, process 42\n"}) {
    EXPECT_NE(text.find(held, text.find("Inhibitors:\n")), text.npos) << held << text;
  }
}

TEST_F(Diagnosis, ListsFontsOrThePackageToInstall) {
  std::string text = describedWith(
      "fc-list", "[[ $3 == :lang=zh-tw ]] && printf 'Some Sans\nSome Serif\n'; echo warning >&2");
  expectIn(text, "  Chinese: Some Sans\n  colour emoji: none: install fonts-noto-color-emoji\n");
  text = describedWith("fc-list", "[[ $3 == :charset=1f7e2:color=true ]] && echo Emoji; echo warning >&2");
  expectIn(text, "  Chinese: none: install fonts-noto-cjk\n  colour emoji: Emoji\n");
}

TEST_F(Diagnosis, TellsWhichProgramsAreMissingOrPrintNothing) {
  const std::string text = describedWith("curl", "");
  expectIn(text, "/curl, no output within 2 seconds\n  lsof: not found\n");
  expectIn(text, "Fonts:\n  Chinese: unknown: fc-list is not installed\n");
  expectIn(text, "Session bus: unknown: busctl is not installed\n");
}

TEST_F(Diagnosis, StartsNoService) {
  const std::string started = programs.file("started");
  for (const char* const name :
       {"org.kde.StatusNotifierWatcher", "org.freedesktop.Notifications", "org.gnome.SessionManager",
        "org.freedesktop.PowerManagement", "org.freedesktop.login1"}) {
    daemon.add(name, "/bin/touch " + started);
  }
  daemon.start();
  EXPECT_NE(described().find("Session bus: answers\n"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(started));
}

TEST_F(Diagnosis, EndsWithoutTheAnswerOfAServiceOrABusThatHangs) {
  daemon.start();
  const StubService tray(daemon.address(), "org.kde.StatusNotifierWatcher", StubService::saysNothing());
  std::string text;
  const auto describe = [&] { text = described(); };
  EXPECT_LT(durationOf(describe), Seconds{10});
  EXPECT_EQ(text.find("shows items"), text.npos) << text;
  expectIn(text, "Inhibitors:\n  none known\n");
  expectIn(text, "Windows: /nowhere/windows is missing (package kestrune-menu-dialogs), no display\n");
  const ScopedVariable noSystemBus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/dev/null/bus");
  daemon.freeze();
  EXPECT_LT(durationOf(describe), Seconds{10});
  daemon.thaw();
  expectIn(text, "Session bus: does not answer\nSystem bus: does not answer\nTray: none\n");
}

}  // namespace
}  // namespace kestrune::testing
