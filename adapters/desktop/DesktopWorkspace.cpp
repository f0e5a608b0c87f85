#include "adapters/desktop/DesktopWorkspace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "adapters/children/Spawn.h"
#include "adapters/system/System.h"
#include "text/Text.h"

namespace kestrune {

void DesktopWorkspace::open(const std::string& path) {
  const FileDescriptor nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
  // Make the path absolute, so that it cannot be taken for an option or a URL.
  const std::string absolute = path.starts_with('/') ? path : bundle.currentDirectoryPath() + "/" + path;
  std::string failures;
  std::vector<SpawnOptions> commands{{"xdg-open", {absolute}}, {"gio", {"open", absolute}}};
  // When a service ends, systemd kills the processes in its cgroup. So start the desktop's program in a scope
  // of its own, if possible: it may hold unsaved work.
  if (starter == Starter::service) {
    constexpr auto script =
        "command -v xdg-open && set xdg-open \"$0\" || set gio open \"$0\"\n"
        "scope='systemd-run --user --scope --quiet --collect'\n"
        "$scope true && exec $scope \"$@\"\n"
        "exec \"$@\"";
    commands = {{"/bin/sh", {"-c", script, absolute}}};
  }
  for (auto& command : commands) {
    command.input = command.output = command.error = nothing.get();
    pid_t pid = 0;
    const int failure = spawn(command, pid);
    if (failure == 0) return loop.reap(pid);
    failures += ": " + command.executable + ": " + describe(failure);
  }
  reportOnce("cannot open " + withoutControls(absolute) + failures + "; install xdg-utils");
}

Result<> DesktopWorkspace::openNewInstance(const std::string&) {
  if (starter != Starter::desktop) {
    replacing = true;
    return Done{};
  }
  const SpawnOptions command{.executable = bundle.executablePath().value_or(""),
                             .arguments = arguments,
                             .environment = {std::string(relaunchVariable) + "=" + std::to_string(getpid())}};
  pid_t pid = 0;
  if (const int failure = spawn(command, pid)) return Failure{describe(failure)};
  loop.reap(pid);
  return Done{};
}

void DesktopWorkspace::replaceThisProcess() const {
  const std::string executable = bundle.executablePath().value_or("");
  std::vector<char*> argv{const_cast<char*>(executable.c_str())};
  for (const auto& each : arguments) argv.push_back(const_cast<char*>(each.c_str()));
  argv.push_back(nullptr);
  setenv(relaunchVariable, std::to_string(getpid()).c_str(), 1);
  // Do not unblock the signals that the event loop has blocked, for example SIGTERM. If one of them arrives
  // after the loop has ended, it stays pending across execv, and the new program receives it.
  execv(executable.c_str(), argv.data());
  reportOnce("cannot start " + executable + " again: " + describe(errno));
}

}  // namespace kestrune
