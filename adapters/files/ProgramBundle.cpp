#include "adapters/files/ProgramBundle.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "text/Text.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr auto sharedFolder = "kestrune-menu-client";

/// Returns `path` without slashes at its end; "/" stays "/".
std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

std::string homeFolder(const MainBundle& environment) {
  if (const auto home = environment.environmentVariable("HOME"); home && !home->empty()) return *home;
  const passwd* const user = getpwuid(getuid());
  return user != nullptr && user->pw_dir != nullptr ? user->pw_dir : "/";
}

}  // namespace

ProgramBundle::ProgramBundle() {
  std::error_code failure;
  if (const auto path = fs::read_symlink("/proc/self/exe", failure); !failure) {
    executable = path;
    folder = path.parent_path();
  }
  const auto current = fs::current_path(failure);
  workingDirectory = failure ? "/" : current.string();
  if (folder.empty()) folder = workingDirectory;
}

std::optional<std::string> ProgramBundle::pathForResource(const std::string& name,
                                                          const std::string& extension) const {
  // In the build tree and in the backend's folder, `resources` is beside the program. A package installs the
  // resources under `share`.
  for (const auto& resources :
       {fs::path(folder) / "resources", fs::path(folder).parent_path() / "share" / sharedFolder}) {
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
  const auto absolute = [](const std::string& path) {
    return path.starts_with('/') ? withoutTrailingSlashes(path) : std::string();
  };
  const auto orElse = [](const std::string& value, const std::string& otherwise) {
    return value.empty() ? otherwise : value;
  };
  const auto variable = [&environment](const char* name) {
    return environment.environmentVariable(name).value_or("");
  };

  const std::string home = withoutTrailingSlashes(homeFolder(environment));
  UserFolders folders;
  folders.home = home;
  folders.config = orElse(absolute(variable("XDG_CONFIG_HOME")), home + "/.config");
  folders.state = orElse(absolute(variable("XDG_STATE_HOME")), home + "/.local/state");
  folders.runtime = absolute(variable("XDG_RUNTIME_DIR"));
  folders.data.push_back(orElse(absolute(variable("XDG_DATA_HOME")), home + "/.local/share"));
  for (const auto& each : split(orElse(variable("XDG_DATA_DIRS"), "/usr/local/share:/usr/share"), ':')) {
    if (auto folder = absolute(each); !folder.empty()) folders.data.push_back(std::move(folder));
  }
  return folders;
}

}  // namespace kestrune
