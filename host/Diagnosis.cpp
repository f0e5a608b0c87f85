#include "host/Diagnosis.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "adapters/bus/BusInquiry.h"
#include "adapters/tray/StatusNotifierItem.h"
#include "text/Text.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr Seconds patience{2.0};
constexpr auto watcher = StatusNotifierItem::watcherName;
constexpr auto notifications = "org.freedesktop.Notifications";
constexpr auto sessionManager = "org.gnome.SessionManager";
constexpr auto absent = "none";
constexpr auto powerManagement = "org.freedesktop.PowerManagement";
constexpr auto loginManager = "org.freedesktop.login1";

/// The services that the client asks to keep the machine awake, besides logind.
constexpr std::array keepers{sessionManager, "org.freedesktop.ScreenSaver", powerManagement};

/// The programs that the client runs.
constexpr std::array programs{"bash", "curl", "lsof", "pgrep", "systemctl", "xdg-open", "gio"};

std::string firstLine(const fs::path& file) {
  std::string line;
  std::ifstream stream(file);
  std::getline(stream, line);
  return line;
}

std::string systemName() {
  utsname kernel{};
  uname(&kernel);
  std::string name = "Linux";
  std::ifstream release("/etc/os-release");
  for (std::string line; std::getline(release, line);) {
    if (line.starts_with("PRETTY_NAME=")) name = replacingAll(line.substr(12), "\"", "");
  }
  return name + ", " + kernel.sysname + " " + kernel.release + " " + kernel.machine;
}

std::optional<std::string> programInPath(const std::string& name, const std::string& path) {
  std::stringstream folders(path);
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string file = folder + "/" + name;
    if (access(file.c_str(), X_OK) == 0) return file;
  }
  return std::nullopt;
}

std::string textIn(sd_bus_message* reply) {
  const char* text = "";
  return sd_bus_message_read(reply, "s", &text) >= 0 ? text : "";
}

std::vector<std::string> textsIn(sd_bus_message* reply, const char* container, const char* element) {
  std::vector<std::string> texts;
  if (sd_bus_message_enter_container(reply, 'a', container) < 0) return texts;
  for (const char* text = nullptr; sd_bus_message_read(reply, element, &text) > 0;) texts.emplace_back(text);
  return texts;
}

/// The D-Bus questions of the report, and their answers.
class SessionInquiry {
 public:
  SessionInquiry(EventLoop& givenLoop, SessionBus& givenSessionBus, SystemBus& givenSystemBus)
      : loop(givenLoop), sessionBus(givenSessionBus), systemBus(givenSystemBus) {}

  void run() {
    sessionBus.connect();
    systemBus.connect();
    for (const char* const name : {watcher, notifications}) askForOwner(session, name, sessionOwners);
    for (const char* const name : keepers) askForOwner(session, name, sessionOwners);
    askForOwner(system, loginManager, systemOwners);
    askForTray();
    askForNotifications();
    askForLocks();
    askForSessionInhibitors();
    askForPowerManagement();
    bool late = false;
    const EventSource deadline = loop.after(patience, [&late] { late = true; });
    loop.runUntil([this, &late] { return late || (session.isDone() && system.isDone()); });
  }

  std::string lines() const {
    std::string text = "Session bus: " + presence(session) + "\nSystem bus: " + presence(system) + "\n";
    text += "Tray: " + owner(sessionOwners, watcher) + "\n";
    if (trayHost)
      text += std::string("  shows items: ") + (*trayHost ? "yes" : "no, there is no host") + "\n";
    for (const std::string& item : items) text += "  item: " + item + "\n";
    text += "Notifications: " + (notifier.empty() ? owner(sessionOwners, notifications) : notifier) + "\n";
    text += "Asked to keep it awake:\n";
    for (const char* const name : keepers)
      text += "  " + std::string(name) + ": " + owner(sessionOwners, name) + "\n";
    text += "  " + std::string(loginManager) + ": " + owner(systemOwners, loginManager) + "\n";
    text += "Held awake by:\n";
    for (const std::string& each : inhibitors) text += "  " + each + "\n";
    if (inhibitors.empty()) text += "  nobody who could be asked\n";
    return text;
  }

 private:
  using Owners = std::map<std::string, std::string>;
  using Outcome = BusInquiry::Outcome;

  static std::string presence(const BusInquiry& bus) {
    return bus.isAnswered() ? "answers" : "does not answer";
  }
  static std::string owner(const Owners& owners, const std::string& name) {
    const auto found = owners.find(name);
    return found != owners.end() ? found->second : absent;
  }

  void askForOwner(BusInquiry& bus, const std::string& name, Owners& owners) {
    bus.ask({busName, busPath, busName, "GetConnectionUnixProcessID", {name}},
            [name, &owners](sd_bus_message* reply, Outcome) {
              std::uint32_t pid = 0;
              if (reply == nullptr || sd_bus_message_read(reply, "u", &pid) < 0) return;
              const std::string number = std::to_string(pid);
              owners[name] = firstLine("/proc/" + number + "/comm") + " (process " + number + ")";
            });
  }

  void askForTray() {
    const auto property = [this](const char* name, BusInquiry::Answer answer) {
      session.ask({watcher,
                   StatusNotifierItem::watcherPath,
                   "org.freedesktop.DBus.Properties",
                   "Get",
                   {watcher, name}},
                  std::move(answer));
    };
    property("IsStatusNotifierHostRegistered", [this](sd_bus_message* reply, Outcome) {
      int there = 0;
      if (reply != nullptr && sd_bus_message_read(reply, "v", "b", &there) >= 0) trayHost = there != 0;
    });
    property("RegisteredStatusNotifierItems", [this](sd_bus_message* reply, Outcome) {
      if (reply != nullptr && sd_bus_message_enter_container(reply, 'v', "as") >= 0)
        items = textsIn(reply, "s", "s");
    });
  }

  void askForNotifications() {
    session.ask({notifications, "/org/freedesktop/Notifications", notifications, "GetServerInformation"},
                [this](sd_bus_message* reply, Outcome) {
                  if (reply == nullptr) return;
                  const std::string name = textIn(reply), vendor = textIn(reply), version = textIn(reply);
                  notifier = name + " " + version + " (" + vendor + ")";
                });
  }

  void askForLocks() {
    system.ask({loginManager, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "ListInhibitors"},
               [this](sd_bus_message* reply, Outcome) {
                 if (reply == nullptr || sd_bus_message_enter_container(reply, 'a', "(ssssuu)") < 0) return;
                 const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
                 std::uint32_t user = 0, pid = 0;
                 while (sd_bus_message_read(reply, "(ssssuu)", &what, &who, &why, &mode, &user, &pid) > 0) {
                   inhibitors.push_back(std::string(loginManager) + ": " + what + " (" + mode + ") by " +
                                        who + ", process " + std::to_string(pid));
                 }
               });
  }

  void askForSessionInhibitors() {
    session.ask({sessionManager, "/org/gnome/SessionManager", sessionManager, "GetInhibitors"},
                [this](sd_bus_message* reply, Outcome) {
                  if (reply == nullptr) return;
                  for (const std::string& path : textsIn(reply, "o", "o")) {
                    session.ask(
                        {sessionManager, path, "org.gnome.SessionManager.Inhibitor", "GetAppId"},
                        [this](sd_bus_message* application, Outcome) {
                          if (application == nullptr) return;
                          inhibitors.push_back(std::string(sessionManager) + ": " + textIn(application));
                        });
                  }
                });
  }

  /// HasInhibit does not tell which program inhibits.
  void askForPowerManagement() {
    session.ask({powerManagement, "/org/freedesktop/PowerManagement/Inhibit",
                 "org.freedesktop.PowerManagement.Inhibit", "HasInhibit"},
                [this](sd_bus_message* reply, Outcome) {
                  int held = 0;
                  if (reply == nullptr || sd_bus_message_read(reply, "b", &held) < 0 || held == 0) return;
                  inhibitors.push_back(std::string(powerManagement) + ": somebody");
                });
  }

  EventLoop& loop;
  SessionBus& sessionBus;
  SystemBus& systemBus;
  BusInquiry session{sessionBus};
  BusInquiry system{systemBus};

  Owners sessionOwners, systemOwners;
  std::optional<bool> trayHost;
  std::vector<std::string> items, inhibitors;
  std::string notifier;
};

std::string environmentLines(const MainBundle& bundle) {
  std::string text;
  for (const char* const name :
       {"XDG_CURRENT_DESKTOP", "XDG_SESSION_TYPE", "DISPLAY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "LANG"}) {
    text += "  " + std::string(name) + ": " + bundle.environmentVariable(name).value_or("not set") + "\n";
  }
  return text;
}

/// The first line of a program's output, or why it could not be started.
std::string firstWordsOf(Processes& processes, const std::string& program,
                         const std::vector<std::string>& arguments) {
  const auto launched = processes.launch(program, arguments);
  if (!launched) return launched.reason();
  const std::string said = (*launched)->readOutput(patience);
  return said.substr(0, said.find('\n'));
}

std::string versionOf(Processes& processes, const std::string& program) {
  return firstWordsOf(processes, program, {"--version"});
}

std::string programLines(const MainBundle& bundle, Processes& processes) {
  std::string text;
  const std::string path = bundle.environmentVariable("PATH").value_or("");
  for (const char* const name : programs) {
    const auto program = programInPath(name, path);
    text += "  " + std::string(name) + ": " + program.value_or("not found");
    if (program && std::string_view(name) == "curl") text += ", " + versionOf(processes, *program);
    text += "\n";
  }
  return text;
}

/// For each kind of text in the windows, an installed font that has it.
std::string fontLines(const MainBundle& bundle, Processes& processes) {
  struct Kind {
    const char* name;
    const char* pattern;
    const char* package;
  };
  constexpr std::array kinds{
      Kind{"Chinese", ":lang=zh-tw", "fonts-noto-cjk"},
      Kind{"emoji in colour", ":charset=1f7e2:color=true", "fonts-noto-color-emoji"},
  };
  const auto lister = programInPath("fc-list", bundle.environmentVariable("PATH").value_or(""));
  std::string text;
  for (const Kind& kind : kinds) {
    std::string font = "unknown without fc-list";
    if (lister) {
      // The "=" tells a family name from a warning of fc-list.
      const std::string said = firstWordsOf(processes, *lister, {"--format==%{family[0]}\n", kind.pattern});
      font = said.starts_with('=') ? said.substr(1) : std::string("none; try ") + kind.package;
    }
    text += "  " + std::string(kind.name) + ": " + font + "\n";
  }
  return text;
}

}  // namespace

std::string describeClient(EventLoop& loop, Rendezvous& rendezvous) {
  const auto process = rendezvous.runningClient();
  if (!process) return "Client that answers: none\n";
  std::ifstream file("/proc/" + std::to_string(*process) + "/cmdline", std::ios::binary);
  std::string command, word;
  bool inTerminal = false;
  while (std::getline(file, word, '\0')) {
    command += (command.empty() ? "" : " ") + word;
    inTerminal = inTerminal || word == "--terminal";
  }
  std::optional<std::string> status;
  bool isAbsent = false;
  const auto subscription = rendezvous.subscribe([&status](const std::string& line) { status = line; },
                                                 [&isAbsent] { isAbsent = true; });
  loop.runUntil([&] { return isAbsent || status; });
  const auto told = parseStatusJson(status.value_or(""));
  return "Client that answers: process " + std::to_string(*process) + ", in the " +
         (inTerminal ? "terminal" : "tray") + ": " + withoutControls(command) + "\n" +
         (told ? std::string("  lamp: ") + std::string(menuIcon(told->lamp)) +
                     (told->keepsAwake ? ", keeps the machine awake" : ", keeps nothing awake") + "\n"
               : "  it hangs, or is of another version\n");
}

std::string describeSession(EventLoop& loop, SessionBus& sessionBus, SystemBus& systemBus,
                            const MainBundle& bundle, Processes& processes, const std::string& windows) {
  const auto isSet = [&bundle](const char* name) {
    return !bundle.environmentVariable(name).value_or("").empty();
  };
  const bool display = isSet("DISPLAY") || isSet("WAYLAND_DISPLAY");
  SessionInquiry inquiry(loop, sessionBus, systemBus);
  inquiry.run();
  const bool hasWindows = access(windows.c_str(), X_OK) == 0;
  const std::string text =
      "System: " + systemName() + "\nDesktop:\n" + environmentLines(bundle) +
      "Windows: " + (hasWindows ? versionOf(processes, windows) : windows + " is missing (package kestrune-menu-dialogs)") +
      (display ? "" : ", no display") + "\nFonts:\n" + fontLines(bundle, processes) + inquiry.lines() +
      "Programs:\n" + programLines(bundle, processes);
  // The answers of other processes may contain control characters.
  std::string plain, line;
  for (std::stringstream all(text); std::getline(all, line);) plain += withoutControls(line) + "\n";
  return plain;
}

}  // namespace kestrune
