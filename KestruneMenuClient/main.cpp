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
    "Keeps the backend connected and shows its status: in the tray of the desktop, or as text.\n"
    "\n"
    "  --terminal    show the menu on standard output and read commands from standard input\n"
    "  --background  if a client already runs, exit silently instead of showing its menu\n"
    "  --status      print the status and exit; starts, stops and shows nothing else.\n"
    "                The exit status is 0 for ok, 3 for a warning, 4 for an error\n"
    "  --json        with --status: one line of JSON\n"
    "  --waybar      with --status: one line for a custom module of Waybar\n"
    "  --follow      with --status: do not exit, and print each change\n"
    "  --exit-zero   with --status: exit with 0 whatever the status is, and with 1 if it is unknown\n"
    "  --perform     run the action of a menu row in the running client; \"help\" lists the actions.\n"
    "                The exit status is 0 on success, 1 on failure, with the reason\n"
    "  --diagnose    print what a bug report needs, without secrets, and exit\n"
    "  --help        print this help and exit\n"
    "  --version     print the version and exit\n"
    "\n"
    "Environment: KESTRUNE_REPO_PATH is the backend's folder. If it is not set, the folder that contains "
    "the\n"
    "last \"dist\" in the path of the program is used, else the working directory.\n";

constexpr int failure = 1;
constexpr int usageError = 2;

/// The parsed command line.
struct Request {
  bool terminal = false, background = false;
  bool status = false, json = false, waybar = false, follow = false, exitZero = false;
  bool diagnose = false;
  std::optional<std::string> action;  ///< for --perform

  /// Whether the options can be combined.
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

// Static, so that they live until the process ends.
std::unique_ptr<Host> host;
std::shared_ptr<ApplicationDelegate> delegate;

/// Prints one line on standard error.
void complain(const std::string& words) {
  std::fprintf(stderr, "KestruneMenuClient: %s\n", words.c_str());
}

[[noreturn]] void refuse(const std::string& why) {
  complain(why + "\n\n" + usage);
  std::exit(usageError);
}

/// Writes to standard output. On failure, complains and returns false.
bool print(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return true;
  std::perror("KestruneMenuClient: cannot write to standard output");
  return false;
}

[[noreturn]] void answer(const std::string& text) {
  std::exit(print(text) ? 0 : failure);
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
      // With --follow, a reader that stalls must not block the end of this process.
      [follows = request.follow](const std::string& text) {
        return follows ? host->write(text) : print(text);
      });
  delegate = command;
  host->endWithOutput();
  host->platform().application->run(*command);
  host->leave(command->exitCode());
}

void perform(const std::string& action) {
  if (action == "help") answer(AppDelegate::describeActions());
  host = makeHost({});
  const auto refusal = host->perform(action);
  if (refusal) complain(*refusal);
  host->leave(!refusal && print("ok\n") ? 0 : failure);
}

void runClient() {
  if (!host->becomeOnlyInstance()) host->leave(0);
  const auto controller = std::make_shared<AppDelegate>(host->platform());
  delegate = controller;
  if (const auto warning = controller->missingBackendWarning()) complain(*warning);
  host->leave(host->platform().application->run(*controller));
}

void diagnose() {
  const bool printed = print("KestruneMenuClient " KESTRUNE_VERSION "\n" +
                             AppDelegate::describeBackend(host->platform()) + host->describe());
  host->leave(printed ? 0 : failure);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  const Request request = parse(argumentCount, arguments);
  if (request.action) perform(*request.action);
  host = makeHost({.face = request.terminal ? Face::terminal : Face::tray,
                   .background = request.background,
                   .arguments = {arguments + 1, arguments + argumentCount}});
  if (request.status) {
    tellStatus(request);
  } else if (request.diagnose) {
    diagnose();
  } else {
    runClient();
  }
}
