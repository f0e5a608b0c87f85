#include <fcntl.h>
#include <libintl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "adapters/awake/Inhibitors.h"
#include "adapters/bus/SessionBus.h"
#include "adapters/children/ChildProcesses.h"
#include "adapters/children/CurlLocalService.h"
#include "adapters/children/LeftoverPipes.h"
#include "adapters/children/SystemdServiceControl.h"
#include "adapters/desktop/DesktopNotifications.h"
#include "adapters/desktop/DesktopWorkspace.h"
#include "adapters/files/AutostartEntries.h"
#include "adapters/files/Files.h"
#include "adapters/files/PreferencesFile.h"
#include "adapters/files/ProgramBundle.h"
#include "adapters/instance/Rendezvous.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/network/NetworkMonitor.h"
#include "adapters/pictures/Pictures.h"
#include "adapters/system/System.h"
#include "adapters/terminal/StandardStreams.h"
#include "adapters/terminal/TerminalFace.h"
#include "adapters/tray/StatusNotifierItem.h"
#include "adapters/tray/TrayAdvice.h"
#include "adapters/windows/DialogWindows.h"
#include "host/Diagnosis.h"
#include "ports/Host.h"

namespace kestrune {

namespace {

/// Prints an error and exits if fewer than 32 descriptors are free, twice as many as the client keeps open.
void requireDescriptors() {
  std::array<FileDescriptor, 32> taken;
  for (auto& each : taken) each.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (taken.back()) return;
  std::fprintf(stderr, "KestruneMenuClient: cannot start: too few file descriptors (%s); raise `ulimit -n`\n",
               std::strerror(errno));
  std::_Exit(EXIT_FAILURE);
}

/// Returns whether systemd started this process as the main process of a service. When the main process ends,
/// systemd kills all processes of the service. So a restart must not start a new process, but call exec.
bool isMainProcessOfService(const MainBundle& environment) {
  return environment.environmentVariable("SYSTEMD_EXEC_PID") == std::to_string(getpid());
}

Claim claimFor(const StartOptions& options) {
  // By the activation token, the desktop lets the window of a started program take the focus.
  const std::string startupID = takeVariable("DESKTOP_STARTUP_ID");
  const std::string token = takeVariable("XDG_ACTIVATION_TOKEN");
  return {.background = options.background,
          .predecessor = std::atoi(takeVariable(relaunchVariable).c_str()),  // 0 if there is none
          .activationToken = token.empty() ? startupID : token};
}

class LinuxHost final : public Host {
 public:
  explicit LinuxHost(const StartOptions& options)
      : claim(claimFor(options)),
        rendezvous(loop, InstanceFolders(folders.runtime, folders.state),
                   [this](const std::string& activationToken) {
                     if (terminal) return terminal->printMenu();
                     windows.giveToken(activationToken);
                     windows.showMenu();
                   }),
        workspace(loop, bundle, options.arguments,
                  isMainProcessOfService(bundle) ? Starter::service
                  : options.terminal             ? Starter::terminal
                                                 : Starter::desktop) {
    // Prevent core dumps: the memory of this process holds the user's secrets.
    prctl(PR_SET_DUMPABLE, 0);
    if (claim.predecessor != 0) loop.reapInherited();
    if (options.terminal) {
      const bool dumb = bundle.environmentVariable("TERM").value_or("dumb") == "dumb";
      terminal = std::make_unique<TerminalFace>(loop, !dumb && !isSet("NO_COLOR"), notifications);
    }
    loop.onTerminate([this] {
      rendezvous.announceEnd();
      if (terminal) terminal->close();
      windows.close();
    });
    parts = std::make_unique<Platform>(Platform{
        .application = &loop,
        .dispatch = loop,
        .clock = clock,
        .statusItem = terminal ? static_cast<StatusItem&>(*terminal) : tray,
        .statusFeed = rendezvous,
        .alerts = terminal ? static_cast<Alerts&>(*terminal) : windows,
        .images = images,
        .notifications = terminal ? static_cast<Notifications&>(*terminal) : notifications,
        .powerAssertions = assertions,
        .pathMonitor = pathMonitor,
        .userDefaults = preferences,
        .mainBundle = bundle,
        .fileManager = files,
        .workspace = workspace,
        .processes = processes,
        .serviceControl = services,
        .launchAgents = agents,
        .localService = localService,
    });
  }

  bool becomeOnlyInstance() override {
    if (!rendezvous.claim(claim)) return false;
    bus.connect(terminal ? SessionBus::Absence::expected : SessionBus::Absence::fault);
    systemBus.connect();
    if (!terminal) {
      bus.waitUntilReady();  // otherwise the tray gets the item only after the controller has started
      advice.emplace(bus, loop, notifications);
    }
    return true;
  }

  Platform& platform() override { return *parts; }

  Result<> perform(const std::string& action) override { return rendezvous.ask(action); }

  std::string describe() override {
    loop.unblockEndingSignals();  // Ctrl+C must end this process: `describeSession` does not run the loop
    return describeClient(loop, rendezvous) + describeSession(processes, dialogProgram.path);
  }

  void endWithOutput() override {
    // With 0 for the events, epoll still reports EPOLLERR and EPOLLHUP: no process can read the output.
    outputEnd = loop.onDescriptor(STDOUT_FILENO, 0, [this] { loop.terminate(); });
  }

  bool write(const std::string& text) override {
    if (!output) output.emplace(loop, STDOUT_FILENO);
    if (output->write(text)) return true;
    // Print nothing for EPIPE: a program that reads the output, such as `head`, may exit at any time.
    if (errno != EPIPE) reportOnce("cannot write to standard output: " + kestrune::describe(errno));
    return false;
  }

  [[noreturn]] void leave(int status) override {
    std::fflush(nullptr);
    if (workspace.replacesThisProcess()) {
      if (terminal) terminal->restoreInput();
      rendezvous.keepLockAcrossExec();
      workspace.replaceThisProcess();
      status = EXIT_FAILURE;
    }
    std::_Exit(status);
  }

 private:
  bool isSet(const char* variable) const {
    return !bundle.environmentVariable(variable).value_or("").empty();
  }

  const Claim claim;
  const ProgramBundle bundle;
  const UserFolders folders = UserFolders::fromEnvironment(bundle);
  SystemFileManager files{folders.home};
  EventLoop loop;
  SystemClock clock;
  SessionBus bus{loop};
  SystemBus systemBus{loop};
  Rendezvous rendezvous;
  PngImages images{folders.data};
  PreferencesFile preferences{files, folders.config + "/kestrune-menu-client/preferences.json"};
  AutostartEntries agents{files, folders.config + "/autostart", bundle, folders.data};
  LeftoverPipes leftovers{loop};
  ChildProcesses processes{[this](FileDescriptor pipe) { leftovers.add(std::move(pipe)); }};
  SystemdServiceControl services;
  DesktopNotifications notifications{
      bus, bundle.pathForResource("codex-menubar-64", "png").value_or("KestruneMacClient")};
  Inhibitors assertions{bus, systemBus, clock};
  NetworkMonitor pathMonitor{loop, clock, systemBus};
  CurlLocalService localService{processes, clock};
  DesktopWorkspace workspace;
  EventSource outputEnd;
  std::optional<StandardOutput> output;
  DialogProgram dialogProgram{loop, bundle.bundlePath() + "/KestruneMenuDialogs",
                              isSet("DISPLAY") || isSet("WAYLAND_DISPLAY"), notifications};
  std::unique_ptr<TerminalFace> terminal;  ///< if not null, used instead of `windows` and `tray`
  DialogWindows windows{dialogProgram};
  StatusNotifierItem tray{TrayParts{
      .bus = bus,
      .queue = loop.mainQueue(),
      .bundle = bundle,
      .onClick = [this] { windows.showMenu(); },
      .onToken = [this](std::string_view token) { windows.giveToken(token); },
      .onMenu = [this](const Menu& menu) { windows.setMenu(menu); },
      .onRegistered = [this] { advice->trayChanged(); },
  }};
  std::optional<TrayAdvice> advice;
  std::unique_ptr<Platform> parts;
};

}  // namespace

std::unique_ptr<Host> makeHost(const StartOptions& options) {
  // Make strerror use the user's language (LC_MESSAGES). The other categories of the locale stay "C".
  setlocale(LC_MESSAGES, "");
  // Without this call, glibc converts messages to ASCII, because LC_CTYPE is "C": Chinese becomes "?".
  bind_textdomain_codeset("libc", "UTF-8");
  // Open the message catalogue now: later, opening it could fail with EMFILE.
  static_cast<void>(std::strerror(ENOENT));
  requireDescriptors();
  return std::make_unique<LinuxHost>(options);
}

}  // namespace kestrune
