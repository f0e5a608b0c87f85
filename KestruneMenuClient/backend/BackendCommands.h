#pragma once

#include <string>
#include <string_view>

#include "ports/FileManager.h"
#include "ports/MainBundle.h"
#include "ports/ServiceControl.h"

// Finds the backend's folder, and builds the shell lines that run the backend's command-line client and stop
// the backend's services. Any thread, unless a comment says otherwise.

namespace kestrune {

/// The backend's folder, and a description of the rule that chose the folder.
struct RepoLocation {
  std::string path;
  const char* rule;
};

/// Returns the folder that KESTRUNE_REPO_PATH names, else the folder that contains the last "dist" in the
/// application's path, else the working directory. Does not check that the folder exists.
RepoLocation locateRepo(const MainBundle& mainBundle);

/// Returns whether `repoPath` has the virtual environment that every command line activates. Main thread.
bool holdsBackend(const FileManager& files, const std::string& repoPath);

/// Returns a shell line that runs a subcommand of the backend's command-line client. If that program is
/// missing or fails, the line runs the legacy client.
std::string clientCommand(std::string_view subcommand);

/// Returns a line that enters the backend's folder, activates its virtual environment and runs
/// `clientCommand`. Does not escape `repoPath`.
std::string backendCommandLine(const std::string& repoPath, std::string_view subcommand);

/// Returns a shell script that ends all services and processes of the backend: 13 lines, which all succeed.
std::string stopScript(const ServiceControl& control);

}  // namespace kestrune
