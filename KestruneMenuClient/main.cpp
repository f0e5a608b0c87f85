#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/status/StatusCommand.h"
#include "ports/Host.h"

using namespace kestrune;

namespace {

constexpr auto usage =
    "Usage: KestruneMenuClient [--terminal] [--background]\n"
    "       KestruneMenuClient --status [--json | --waybar] [--follow] [--exit-zero]\n"
    "       KestruneMenuClient --perform ACTION\n"
    "       KestruneMenuClient --diagnose\n"
    "Keeps a self-hosted bridge alive, and shows its status: in the tray of the desktop, or as text.\n"
    "\n"
    "  --terminal    show the menu on standard output, and read commands from standard input\n"
    "  --background  if a client already runs, exit without making it show its menu\n"
    "  --status      print the status and exit; this starts and stops no service.\n"
    "                The exit status is the lamp: 0 green, 3 yellow, 4 red\n"
    "  --json        with --status: print one line of JSON\n"
    "  --waybar      with --status: print one line for a custom module of Waybar\n"
    "  --follow      with --status: keep printing, after each change\n"
    "  --exit-zero   with --status: exit with 0 for every lamp, with 1 only if there is no status\n"
    "  --perform     make the running client do what a row of its menu does; \"help\" lists the actions.\n"
    "                The exit status is 0, or 1 with the reason on standard error\n"
    "  --diagnose    print what a bug report needs, without secrets, and exit\n"
    "  --help        show this and exit\n"
    "  --version     show the version and exit\n"
    "\n"
    "KESTRUNE_REPO_PATH names the backend's folder. If it is unset or blank, and the program is in a folder\n"
    "below a folder \"dist\", the client uses the folder that contains the last such \"dist\". Otherwise it\n"
    "uses the working directory. Set it in:\n"
    "  GNOME, Plasma       ~/.config/environment.d/kestrune.conf:  KESTRUNE_REPO_PATH=FOLDER\n"
    "  other X11 desktops  ~/.xsessionrc:  export KESTRUNE_REPO_PATH=FOLDER\n"
    "  sway                ~/.config/sway/config:  exec env KESTRUNE_REPO_PATH=FOLDER KestruneMenuClient\n"
    "  login shells        ~/.profile:  export KESTRUNE_REPO_PATH=FOLDER\n"
    "The entry for start at login, which the menu makes, holds the folder of the client that made it.\n";

constexpr int usageError = 2;

/// The parsed command line.
struct Request {
  bool terminal = false, background = false;
  bool status = false, json = false, waybar = false, follow = false, exitZero = false;
  bool diagnose = false;
  std::optional<std::string> action;  ///< the argument of --perform

  /// Returns whether the options can be combined.
  bool isSound() const {
    return status + diagnose + action.has_value() + (terminal || background) <= 1 && json + waybar <= 1 &&
           (status || !(json || waybar || follow || exitZero));
  }
};

const std::map<std::string_view, bool Request::*> flags{
    {"--terminal", &Request::terminal},  {"--background", &Request::background},
    {"--status", &Request::status},      {"--json", &Request::json},
    {"--waybar", &Request::waybar},      {"--follow", &Request::follow},
    {"--exit-zero", &Request::exitZero}, {"--diagnose", &Request::diagnose},
};

// Global, so that both objects live until the process ends.
std::unique_ptr<Host> host;
std::shared_ptr<ApplicationDelegate> delegate;

void complain(const std::string& words) {
  std::fprintf(stderr, "KestruneMenuClient: %s\n", words.c_str());
}

[[noreturn]] void refuse(const std::string& why) {
  complain(why + "\n\n" + usage);
  std::exit(usageError);
}

bool print(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return true;
  std::perror("KestruneMenuClient: cannot write to standard output");
  return false;
}

[[noreturn]] void answer(const std::string& text) {
  std::exit(print(text) ? EXIT_SUCCESS : EXIT_FAILURE);
}

Request parse(int argumentCount, char** arguments) {
  Request request;
  for (int i = 1; i < argumentCount; ++i) {
    const std::string_view argument = arguments[i];
    if (const auto flag = flags.find(argument); flag != flags.end()) {
      request.*flag->second = true;
    } else if (argument == "--perform") {
      if (request.action) refuse("--perform can be given once");
      if (++i == argumentCount) refuse("--perform needs an action; \"--perform help\" lists all actions");
      request.action = arguments[i];
    } else if (argument == "--help" || argument == "-h") {
      answer(usage);
    } else if (argument == "--version") {
      answer("KestruneMenuClient " KESTRUNE_VERSION "\n");
    } else {
      refuse("unknown option: " + std::string(argument));
    }
  }
  if (!request.isSound()) refuse("these options cannot be combined");
  return request;
}

void tellStatus(const Request& request) {
  const auto format = request.json     ? StatusFormat::json
                      : request.waybar ? StatusFormat::waybar
                                       : StatusFormat::text;
  const auto command = std::make_shared<StatusCommand>(
      host->platform(), StatusCommand::Options{format, request.follow, request.exitZero},
      // With --follow, never block: a program that stops reading our output must not keep us from ending.
      [&request](const std::string& text) { return request.follow ? host->write(text) : print(text); });
  delegate = command;
  host->endWithOutput();
  host->platform().application->run(*command);
  host->leave(command->exitCode());
}

void perform(const std::string& action) {
  if (action == "help") answer(AppDelegate::describeActions());
  host = makeHost({});
  const auto performed = host->perform(action);
  if (!performed) complain(performed.reason());
  host->leave(performed && print("ok\n") ? EXIT_SUCCESS : EXIT_FAILURE);
}

void diagnose() {
  const std::string backend = AppDelegate(host->platform()).describeBackend();
  const bool printed = print("KestruneMenuClient " KESTRUNE_VERSION "\n" + backend + host->describe());
  host->leave(printed ? EXIT_SUCCESS : EXIT_FAILURE);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  const Request request = parse(argumentCount, arguments);
  if (request.action) perform(*request.action);
  host = makeHost({.terminal = request.terminal,
                   .background = request.background,
                   .arguments = {arguments + std::min(argumentCount, 1), arguments + argumentCount}});
  // Each of the next two functions ends the process.
  if (request.status) tellStatus(request);
  if (request.diagnose) diagnose();
  if (!host->becomeOnlyInstance()) host->leave(EXIT_SUCCESS);
  const auto controller = std::make_shared<AppDelegate>(host->platform());
  delegate = controller;
  if (const auto warning = controller->missingBackendWarning()) complain(*warning);
  host->leave(host->platform().application->run(*controller));
}
