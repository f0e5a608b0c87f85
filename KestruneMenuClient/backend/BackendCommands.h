#pragma once

#include <string>
#include <string_view>

#include "ports/FileManager.h"
#include "ports/MainBundle.h"
#include "ports/ServiceControl.h"

// The backend's folder, and the shell lines that run its client and stop its services. Any thread, unless a
// comment says otherwise.

namespace kestrune {

/// The backend's folder, and a description of the rule that chose it.
struct RepoLocation {
  std::string path;
  const char* rule;
};

/// The folder in KESTRUNE_REPO_PATH, else the one that contains the last "dist" in the application's path,
/// else the working directory. Does not check that it exists.
RepoLocation locateRepo(const MainBundle& mainBundle);

/// Whether the folder has the virtual environment that every command line activates. Main thread.
bool holdsBackend(const FileManager& files, const std::string& repoPath);

/// A shell line that runs a subcommand of the backend's client, or of the legacy client if the current one is
/// missing or fails.
std::string clientCommand(std::string_view subcommand);

/// The same, in the backend's folder and virtual environment. Does not escape `repoPath`.
std::string backendCommandLine(const std::string& repoPath, std::string_view subcommand);

/// A shell script that ends all services and processes of the backend: 13 lines, each of which succeeds.
std::string stopScript(const ServiceControl& control);

}  // namespace kestrune
