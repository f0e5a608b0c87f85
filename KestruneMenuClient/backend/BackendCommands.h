#pragma once

#include <string>
#include <string_view>

#include "ports/MainBundle.h"

// Where the backend is, and the shell lines that run its client. All functions are pure and may be called
// from any thread.

namespace kestrune {

/// The backend's folder, and the rule that chose it, in words.
struct RepoLocation {
  std::string path;
  const char* rule;
};

/// The folder that KESTRUNE_REPO_PATH names, else the one above the last "dist" in the application's path,
/// else the working directory. Whether it exists is not checked.
RepoLocation locateRepo(const MainBundle& mainBundle);

/// Runs a sub-command of the backend's client; where the current client is missing or fails, of the legacy
/// one.
std::string clientCommand(std::string_view subcommand);

/// The same, in the backend's folder and environment. `repoPath` is not escaped.
std::string backendCommandLine(const std::string& repoPath, std::string_view subcommand);

}  // namespace kestrune
