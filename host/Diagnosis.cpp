#include "host/Diagnosis.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "adapters/bus/BusInquiry.h"
#include "adapters/system/WholeFile.h"
#include "adapters/tray/StatusNotifierItem.h"
#include "text/Text.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr Seconds patience{2.0};
constexpr auto watcher = StatusNotifierItem::watcherName;
constexpr auto notifications = "org.freedesktop.Notifications";
constexpr auto sessionManager = "org.gnome.SessionManager";
constexpr auto powerManagement = "org.freedesktop.PowerManagement";
constexpr auto loginManager = "org.freedesktop.login1";

/// The D-Bus services that the client asks to keep the machine awake, besides logind.
constexpr std::array keepers{sessionManager, "org.freedesktop.ScreenSaver", powerManagement};

/// The programs that the client runs, besides KestruneMenuDialogs.
constexpr std::array programs{"bash", "curl", "lsof", "pgrep", "systemctl", "xdg-open", "gio"};

std::string firstLine(const fs::path& file) {
  std::string text;
  readWholeFile(file, text);
  return text.substr(0, text.find('\n'));
}

std::string systemName() {
  utsname kernel{};
  uname(&kernel);
  std::string name = "Linux";
  std::string release;
  readWholeFile("/etc/os-release", release);
  for (const auto& line : split(release, '\n')) {
    if (line.starts_with("PRETTY_NAME=")) name = replacingAll(line.substr(12), "\"", "");
  }
  return name + ", " + kernel.sysname + " " + kernel.release + " " + kernel.machine;
}

std::optional<std::string> programInPath(const std::string& name, const std::string& path) {
  for (const auto& folder : split(path, ':')) {
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

/// Describes what the services on the session bus and the system bus answer. Asks all questions at once, and
/// waits 2 s at most.
std::string busLines(EventLoop& loop, SessionBus& sessionBus, SystemBus& systemBus) {
  BusInquiry session{sessionBus}, system{systemBus};
  std::map<std::string, std::string> owners;
  std::vector<std::string> items, inhibitors;
  std::string trayHost, notifier;
  const auto ask = [](BusInquiry& bus, const BusInquiry::Question& question,
                      std::function<void(sd_bus_message*)> read) {
    bus.ask(question, [read = std::move(read)](sd_bus_message* reply, BusInquiry::Outcome) {
      if (reply != nullptr) read(reply);
    });
  };
  const auto askForOwner = [&](BusInquiry& bus, const std::string& name) {
    ask(bus, {busName, busPath, busName, "GetConnectionUnixProcessID", {name}},
        [&owners, name](sd_bus_message* reply) {
          std::uint32_t process = 0;
          if (sd_bus_message_read(reply, "u", &process) < 0) return;
          const std::string number = std::to_string(process);
          owners[name] = firstLine("/proc/" + number + "/comm") + " (process " + number + ")";
        });
  };
  const auto askTray = [&](const char* property, std::function<void(sd_bus_message*)> read) {
    ask(session,
        {watcher,
         StatusNotifierItem::watcherPath,
         "org.freedesktop.DBus.Properties",
         "Get",
         {watcher, property}},
        std::move(read));
  };

  sessionBus.connect();
  systemBus.connect();
  for (const char* const name : {watcher, notifications}) askForOwner(session, name);
  for (const char* const name : keepers) askForOwner(session, name);
  askForOwner(system, loginManager);
  askTray("IsStatusNotifierHostRegistered", [&](sd_bus_message* reply) {
    int there = 0;
    if (sd_bus_message_read(reply, "v", "b", &there) >= 0)
      trayHost = std::string("  shows items: ") + (there != 0 ? "yes" : "no, there is no host") + "\n";
  });
  askTray("RegisteredStatusNotifierItems", [&](sd_bus_message* reply) {
    if (sd_bus_message_enter_container(reply, 'v', "as") >= 0) items = textsIn(reply, "s", "s");
  });
  ask(session, {notifications, "/org/freedesktop/Notifications", notifications, "GetServerInformation"},
      [&](sd_bus_message* reply) {
        const std::string name = textIn(reply), vendor = textIn(reply), version = textIn(reply);
        notifier = name + " " + version + " (" + vendor + ")";
      });
  ask(system, {loginManager, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "ListInhibitors"},
      [&](sd_bus_message* reply) {
        if (sd_bus_message_enter_container(reply, 'a', "(ssssuu)") < 0) return;
        const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
        std::uint32_t user = 0, process = 0;
        while (sd_bus_message_read(reply, "(ssssuu)", &what, &who, &why, &mode, &user, &process) > 0) {
          inhibitors.push_back(std::string(loginManager) + ": " + what + " (" + mode + ") by " + who +
                               ", process " + std::to_string(process));
        }
      });
  ask(session, {sessionManager, "/org/gnome/SessionManager", sessionManager, "GetInhibitors"},
      [&](sd_bus_message* reply) {
        for (const std::string& path : textsIn(reply, "o", "o")) {
          ask(session, {sessionManager, path, "org.gnome.SessionManager.Inhibitor", "GetAppId"},
              [&](sd_bus_message* name) {
                inhibitors.push_back(std::string(sessionManager) + ": " + textIn(name));
              });
        }
      });
  // HasInhibit tells whether any program holds an inhibitor, but not which program.
  ask(session,
      {powerManagement, "/org/freedesktop/PowerManagement/Inhibit", "org.freedesktop.PowerManagement.Inhibit",
       "HasInhibit"},
      [&](sd_bus_message* reply) {
        int held = 0;
        if (sd_bus_message_read(reply, "b", &held) >= 0 && held != 0)
          inhibitors.push_back(std::string(powerManagement) + ": unknown program");
      });
  bool late = false;
  const EventSource deadline = loop.after(patience, [&late] { late = true; });
  loop.runUntil([&] { return late || (session.isDone() && system.isDone()); });

  const auto presence = [](const BusInquiry& bus) {
    return bus.isAnswered() ? "answers\n" : "does not answer\n";
  };
  const auto owner = [&owners](const char* name) {
    const auto found = owners.find(name);
    return found != owners.end() ? found->second : std::string("none");
  };
  std::string text = std::string("Session bus: ") + presence(session) + "System bus: " + presence(system) +
                     "Tray: " + owner(watcher) + "\n" + trayHost;
  for (const std::string& item : items) text += "  item: " + item + "\n";
  text += "Notifications: " + (notifier.empty() ? owner(notifications) : notifier) + "\n";
  text += "Services that can keep the machine awake:\n";
  for (const char* const name : keepers) text += std::string("  ") + name + ": " + owner(name) + "\n";
  text += std::string("  ") + loginManager + ": " + owner(loginManager) + "\nInhibitors:\n";
  for (const std::string& each : inhibitors) text += "  " + each + "\n";
  return text + (inhibitors.empty() ? "  none known\n" : "");
}

std::string environmentLines(const MainBundle& bundle) {
  std::string text;
  for (const char* const name :
       {"XDG_CURRENT_DESKTOP", "XDG_SESSION_TYPE", "DISPLAY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "LANG"}) {
    text += "  " + std::string(name) + ": " + bundle.environmentVariable(name).value_or("not set") + "\n";
  }
  return text;
}

/// Returns the first line of a program's output, or the reason why there is no output.
std::string firstWordsOf(Processes& processes, const std::string& program,
                         const std::vector<std::string>& arguments) {
  const auto launched = processes.launch(program, arguments);
  if (!launched) return launched.reason();
  const std::string said = (*launched)->readOutput(patience);
  return said.empty() ? "no output within 2 seconds" : said.substr(0, said.find('\n'));
}

std::string programLines(const MainBundle& bundle, Processes& processes) {
  std::string text;
  const std::string path = bundle.environmentVariable("PATH").value_or("");
  for (const char* const name : programs) {
    const auto program = programInPath(name, path);
    text += "  " + std::string(name) + ": " + program.value_or("not found");
    if (program && std::string_view(name) == "curl")
      text += ", " + firstWordsOf(processes, *program, {"--version"});
    text += "\n";
  }
  return text;
}

/// For Chinese and for emoji, returns a line with an installed font that has the characters, or with the
/// package to install.
std::string fontLines(const MainBundle& bundle, Processes& processes) {
  struct Kind {
    const char *name, *pattern, *package;
  };
  constexpr Kind kinds[] = {{"Chinese", ":lang=zh-tw", "fonts-noto-cjk"},
                            {"colour emoji", ":charset=1f7e2:color=true", "fonts-noto-color-emoji"}};
  const auto lister = programInPath("fc-list", bundle.environmentVariable("PATH").value_or(""));
  std::string text;
  for (const Kind& kind : kinds) {
    std::string font = "unknown: fc-list is not installed";
    if (lister) {
      // The "=" before a family name distinguishes it from a warning of fc-list.
      const std::string said = firstWordsOf(processes, *lister, {"--format==%{family[0]}\n", kind.pattern});
      font = said.starts_with('=') ? said.substr(1) : std::string("none: install ") + kind.package;
    }
    text += "  " + std::string(kind.name) + ": " + font + "\n";
  }
  return text;
}

}  // namespace

std::string describeClient(EventLoop& loop, Rendezvous& rendezvous) {
  const auto process = rendezvous.runningClient();
  if (!process) return "Running client: none\n";
  std::string arguments, command;
  readWholeFile("/proc/" + std::to_string(*process) + "/cmdline", arguments);
  bool inTerminal = false;
  for (const auto& word : split(arguments, '\0')) {
    command += (command.empty() ? "" : " ") + word;
    inTerminal = inTerminal || word == "--terminal";
  }
  std::optional<std::string> status;
  bool isAbsent = false;
  const auto subscription = rendezvous.subscribe([&status](const std::string& line) { status = line; },
                                                 [&isAbsent] { isAbsent = true; });
  loop.runUntil([&] { return isAbsent || status; });
  const auto told = parseStatusJson(status.value_or(""));
  return "Running client: process " + std::to_string(*process) + ", in the " +
         (inTerminal ? "terminal" : "tray") + ": " + withoutControls(command) + "\n" +
         (told ? std::string("  lamp: ") + std::string(menuIcon(told->lamp)) +
                     (told->keepsAwake ? ", keeps the machine awake" : ", does not keep the machine awake") +
                     "\n"
               : "  does not answer, or has another version\n");
}

std::string describeSession(EventLoop& loop, SessionBus& sessionBus, SystemBus& systemBus,
                            const MainBundle& bundle, Processes& processes, const std::string& windows) {
  const auto isSet = [&bundle](const char* name) {
    return !bundle.environmentVariable(name).value_or("").empty();
  };
  const bool display = isSet("DISPLAY") || isSet("WAYLAND_DISPLAY");
  const bool hasWindows = access(windows.c_str(), X_OK) == 0;
  const std::string text =
      "System: " + systemName() + "\nDesktop:\n" + environmentLines(bundle) + "Windows: " +
      (hasWindows ? firstWordsOf(processes, windows, {"--version"})
                  : windows + " is missing (package kestrune-menu-dialogs)") +
      (display ? "" : ", no display") + "\nFonts:\n" + fontLines(bundle, processes) +
      busLines(loop, sessionBus, systemBus) + "Programs:\n" + programLines(bundle, processes);
  // Remove control characters: answers of other processes may contain some, and a terminal would obey them.
  std::string plain;
  for (const auto& line : split(text, '\n')) plain += withoutControls(line) + "\n";
  return plain;
}

}  // namespace kestrune
