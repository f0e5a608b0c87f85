#include "KestruneMenuClient/backend/BackendCommands.h"

#include "KestruneMenuClient/backend/BackendContract.h"
#include "text/Text.h"

namespace kestrune {

RepoLocation locateRepo(const MainBundle& mainBundle) {
  if (const auto path = mainBundle.environmentVariable("KESTRUNE_REPO_PATH");
      path && !trimmed(*path).empty()) {
    return {*path, "named by KESTRUNE_REPO_PATH"};
  }
  const std::string bundlePath = mainBundle.bundlePath();
  if (const auto dist = bundlePath.rfind("/dist/"); dist != std::string::npos)
    return {bundlePath.substr(0, dist), "above the last \"dist\" on the way to the program"};
  return {mainBundle.currentDirectoryPath(), "the working directory"};
}

std::string clientCommand(std::string_view subcommand) {
  const std::string client = backend::clientProgram;
  const std::string legacyClient = backend::legacyClientProgram;
  const std::string argument(subcommand);
  return "{ command -v " + client + " >/dev/null 2>&1 && " + client + " " + argument + " || " + legacyClient +
         " " + argument + "; }";
}

std::string backendCommandLine(const std::string& repoPath, std::string_view subcommand) {
  return "cd '" + repoPath + "' && source .venv/bin/activate && " + clientCommand(subcommand);
}

}  // namespace kestrune
