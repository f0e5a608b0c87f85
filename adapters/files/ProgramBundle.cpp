#include "adapters/files/ProgramBundle.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "text/Text.h"

namespace kestrune {

namespace fs = std::filesystem;

/// Returns `path` without slashes at its end; "/" stays "/".
static std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

static std::string homeFolder(const MainBundle& environment) {
  if (const auto home = environment.environmentVariable("HOME"); home && !home->empty()) return *home;
  const passwd* const user = getpwuid(getuid());
  return user != nullptr && user->pw_dir != nullptr ? user->pw_dir : "/";
}

ProgramBundle::ProgramBundle() {
  std::error_code failure;
  if (const auto path = fs::read_symlink("/proc/self/exe", failure); !failure) executable = path;
  const auto current = fs::current_path(failure);
  workingDirectory = failure ? "/" : current.string();
  folder = executable ? fs::path(*executable).parent_path().string() : workingDirectory;
}

std::optional<std::string> ProgramBundle::pathForResource(const std::string& name,
                                                          const std::string& extension) const {
  // In the build tree and in the backend's folder, `resources` is beside the program. A package installs the
  // resources under `share`.
  for (const auto& resources :
       {fs::path(folder) / "resources", fs::path(folder).parent_path() / "share" / "kestrune-menu-client"}) {
    std::error_code failure;
    if (const auto path = resources / (name + "." + extension); fs::exists(path, failure)) return path;
  }
  return std::nullopt;
}

std::optional<std::string> ProgramBundle::environmentVariable(const std::string& name) const {
  const char* const value = std::getenv(name.c_str());
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::string takeVariable(const char* name) {
  const char* const set = std::getenv(name);
  const std::string value = set != nullptr ? set : "";
  unsetenv(name);
  return value;
}

UserFolders UserFolders::fromEnvironment(const MainBundle& environment) {
  // Ignore an XDG base directory if its path is relative: XDG base directories must be absolute paths.
  const auto baseFolder = [&](const char* variable, const std::string& otherwise) {
    const std::string path = environment.environmentVariable(variable).value_or("");
    return path.starts_with('/') ? withoutTrailingSlashes(path) : otherwise;
  };

  UserFolders folders;
  folders.home = withoutTrailingSlashes(homeFolder(environment));
  folders.config = baseFolder("XDG_CONFIG_HOME", folders.home + "/.config");
  folders.state = baseFolder("XDG_STATE_HOME", folders.home + "/.local/state");
  folders.runtime = baseFolder("XDG_RUNTIME_DIR", "");
  folders.data.push_back(baseFolder("XDG_DATA_HOME", folders.home + "/.local/share"));
  const std::string shared = environment.environmentVariable("XDG_DATA_DIRS").value_or("");
  for (const auto& each : split(shared.empty() ? "/usr/local/share:/usr/share" : shared, ':')) {
    if (each.starts_with('/')) folders.data.push_back(withoutTrailingSlashes(each));
  }
  return folders;
}

}  // namespace kestrune
