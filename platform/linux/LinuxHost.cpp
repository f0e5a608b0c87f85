#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/Host.h"
#include "platform/linux/AutostartEntries.h"
#include "platform/linux/DesktopNotifications.h"
#include "platform/linux/DesktopWorkspace.h"
#include "platform/linux/Diagnosis.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/Inhibitors.h"
#include "platform/linux/ProgramBundle.h"
#include "platform/linux/SessionBus.h"
#include "platform/linux/SingleInstance.h"
#include "platform/linux/StatusSocket.h"
#include "platform/linux/SystemClock.h"
#include "platform/linux/SystemdServiceControl.h"
#include "platform/network/NetworkMonitor.h"
#include "platform/posix/ChildProcesses.h"
#include "platform/posix/CurlLocalService.h"
#include "platform/posix/FileDescriptor.h"
#include "platform/posix/PngImages.h"
#include "platform/posix/PreferencesFile.h"
#include "platform/posix/QRSymbols.h"
#include "platform/posix/SystemFileManager.h"
#include "platform/terminal/TerminalFace.h"
#include "platform/terminal/TerminalOutput.h"
#include "platform/tray/DialogAlerts.h"
#include "platform/tray/MenuWindow.h"
#include "platform/tray/TrayAdvice.h"
#include "platform/tray/TrayStatusBar.h"

namespace kestrune {

namespace {

constexpr auto folderName = "/kestrune-menu-client";
/// The logo in the size that notifications show, and its name where only the desktop has it.
constexpr auto iconName = "codex-menubar-64";
constexpr auto themeIconName = "KestruneMacClient";
constexpr int descriptorsNeeded = 32;                    // twice as many as it keeps open
constexpr auto dialogsProgram = "/KestruneMenuDialogs";  // beside the client

/// One that starts with too few could be deaf and mute, and nobody would know.
void requireDescriptors() {
  std::vector<FileDescriptor> taken;
  for (int i = 0; i < descriptorsNeeded; ++i) {
    taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (taken.back()) continue;
    std::fprintf(stderr, "KestruneMenuClient: cannot start: %s\n", std::strerror(errno));
    std::_Exit(EXIT_FAILURE);
  }
}

bool wasRelaunched() {
  const bool relaunched = std::getenv(relaunchVariable) != nullptr;
  unsetenv(relaunchVariable);
  return relaunched;
}

/// Whether the service manager has started this very process. It takes the end of it for that of the service,
/// and ends whatever is left, a new instance with it.
bool isMainProcessOfService(const MainBundle& environment) {
  return environment.environmentVariable("SYSTEMD_EXEC_PID") == std::to_string(getpid());
}

/// Where the files of a client lie that runs.
std::string runtimeFolder(const UserFolders& folders) {
  return (folders.runtime.empty() ? folders.state : folders.runtime) + folderName;
}

class LinuxHost final : public Host {
 public:
  explicit LinuxHost(const StartOptions& options)
      : claim(wasRelaunched()      ? SingleInstance::Claim::wait
              : options.background ? SingleInstance::Claim::refuseQuietly
                                   : SingleInstance::Claim::refuse),
        folders(UserFolders::fromEnvironment(bundle)),
        bus(loop),
        systemBus(loop),
        instance(loop, bus, runtimeFolder(folders) + "/lock", [this] { onActivate(); }),
        statusFeed(loop, runtimeFolder(folders) + "/status"),
        images(folders.data),
        preferences(folders.config + folderName + "/preferences.json"),
        agents(folders.config + "/autostart", bundle),
        notifications(bus, loop, bundle.pathForResource(iconName, "png").value_or(themeIconName)),
        assertions(bus, systemBus, loop, clock),
        workspace(loop, bundle, options.arguments,
                  options.face == Face::terminal || isMainProcessOfService(bundle)) {
    // The process will hold secrets of the user's, which a core dump would leave on the disk.
    prctl(PR_SET_DUMPABLE, 0);
    if (claim == SingleInstance::Claim::wait) loop.reapInherited();
    if (options.face == Face::terminal) {
      const auto noColor = bundle.environmentVariable("NO_COLOR");
      const bool dumb = bundle.environmentVariable("TERM").value_or("dumb") == "dumb";
      terminal = std::make_unique<TerminalFace>(loop, !dumb && (!noColor || noColor->empty()), !dumb);
      loop.onTerminate([this] {
        announceEnd();
        terminal->close();
      });
    } else {
      const std::string program = dialogsPath();
      const bool hasDisplay = isSet("DISPLAY") || isSet("WAYLAND_DISPLAY");
      menuWindow = std::make_unique<MenuWindow>(loop, program, hasDisplay);
      dialogs = std::make_unique<DialogAlerts>(loop, notifications, program, hasDisplay);
      tray = std::make_unique<TrayStatusBar>(bus, loop.mainQueue(), *menuWindow);
      loop.onTerminate([this] {
        announceEnd();
        dialogs->close();
        menuWindow->close();
      });
    }
    parts = std::make_unique<Platform>(Platform{
        .application = &loop,
        .dispatch = loop,
        .timers = loop,
        .clock = clock,
        .statusBar = terminal ? static_cast<StatusBar&>(*terminal) : *tray,
        .statusFeed = statusFeed,
        .alerts = terminal ? static_cast<Alerts&>(*terminal) : *dialogs,
        .images = images,
        .notifications = notifications,
        .powerAssertions = assertions,
        .pathMonitors = pathMonitors,
        .userDefaults = preferences,
        .mainBundle = bundle,
        .fileManager = files,
        .workspace = workspace,
        .processes = processes,
        .serviceControl = services,
        .launchAgents = agents,
        .localService = localService,
        .qrCodes = qrCodes,
    });
  }

  bool becomeOnlyInstance() override {
    bus.connect();
    systemBus.connect();
    if (!instance.claim(claim)) return false;
    isClient = true;
    if (tray) advice.emplace(bus, loop, notifications);
    return true;
  }

  Platform& platform() override { return *parts; }

  std::string describe() override {
    return describeClient(loop, statusFeed) +
           describeSession(loop, bus, systemBus, bundle, processes, dialogsPath());
  }

  void endWithOutput() override {
    // Of a pipe or a socket that nobody reads, no event but this is reported.
    outputEnd = loop.onDescriptor(STDOUT_FILENO, 0, [this] { loop.terminate(); });
  }

  bool write(const std::string& text) override {
    if (!output) output.emplace(loop, STDOUT_FILENO);
    return output->write(text);
  }

  [[noreturn]] void leave(int status) override {
    std::fflush(nullptr);
    if (workspace.replacesThisProcess()) {
      if (terminal) terminal->giveBackInput();
      workspace.replaceThisProcess();
      status = EXIT_FAILURE;
    }
    std::_Exit(status);
  }

 private:
  void announceEnd() {
    // The place of one that takes over this process is not to be had.
    if (!workspace.replacesThisProcess()) instance.announceEnd();
  }

  void onActivate() {
    if (!isClient) return;
    if (terminal) {
      terminal->printMenu();
    } else {
      menuWindow->show();
    }
  }

  std::string dialogsPath() const { return bundle.bundlePath() + dialogsProgram; }

  bool isSet(const char* variable) const {
    return !bundle.environmentVariable(variable).value_or("").empty();
  }

  const SingleInstance::Claim claim;
  const ProgramBundle bundle;
  const UserFolders folders;
  EventLoop loop;
  SystemClock clock;
  SessionBus bus;
  SystemBus systemBus;
  SingleInstance instance;
  StatusSocket statusFeed;
  PngImages images;
  PreferencesFile preferences;
  AutostartEntries agents;
  ChildProcesses processes;
  SystemdServiceControl services;
  DesktopNotifications notifications;
  Inhibitors assertions;
  NetworkMonitors pathMonitors{loop, clock, systemBus};
  SystemFileManager files{folders.home};
  CurlLocalService localService{processes, clock};
  QRSymbols qrCodes;
  DesktopWorkspace workspace;
  bool isClient = false;
  EventSource outputEnd;
  std::optional<TerminalOutput> output;
  std::unique_ptr<TerminalFace> terminal;
  std::unique_ptr<MenuWindow> menuWindow;
  std::unique_ptr<DialogAlerts> dialogs;
  std::unique_ptr<TrayStatusBar> tray;
  std::optional<TrayAdvice> advice;
  std::unique_ptr<Platform> parts;
};

}  // namespace

std::unique_ptr<Host> makeHost(const StartOptions& options) {
  requireDescriptors();
  return std::make_unique<LinuxHost>(options);
}

}  // namespace kestrune
