#include "adapters/launchd/Launchd.h"

#include <utility>

namespace kestrune {

namespace {

constexpr auto beforeLabel =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n"
    "  <key>Label</key>\n"
    "  <string>";
constexpr auto betweenLabelAndProgram =
    "</string>\n"
    "  <key>ProgramArguments</key>\n"
    "  <array>\n"
    "    <string>";
constexpr auto afterProgram =
    "</string>\n"
    "  </array>\n"
    "  <key>RunAtLoad</key>\n"
    "  <true/>\n"
    "  <key>KeepAlive</key>\n"
    "  <false/>\n"
    "</dict>\n"
    "</plist>";

}  // namespace

LaunchdAgents::LaunchdAgents(std::string givenHome, std::function<bool(const std::string&)> givenFileExists)
    : home(std::move(givenHome)), fileExists(std::move(givenFileExists)) {}

std::string LaunchdAgents::path(const std::string& label) const {
  return home + "/Library/LaunchAgents/" + label + ".plist";
}

bool LaunchdAgents::isRegistered(const std::string& label) const {
  return fileExists(path(label));
}

/// Ignores the repository's path: the program finds the repository from its own path.
std::optional<std::string> LaunchdAgents::document(const std::string& label,
                                                   const std::string& executablePath,
                                                   const std::string&) const {
  return beforeLabel + label + betweenLabelAndProgram + executablePath + afterProgram;
}

void LaunchdAgents::repair(const std::string&, const std::string&) {}

LaunchdServiceControl::LaunchdServiceControl(unsigned userID) : domain("gui/" + std::to_string(userID)) {}

std::string LaunchdServiceControl::unloadLine(const std::string& label) const {
  return "launchctl bootout " + domain + "/" + label + " || true";
}

std::string LaunchdServiceControl::endMatchingLine(const std::string& pattern) const {
  return "pkill -f '" + pattern + "' || true";
}

std::string LaunchdServiceControl::killListenersLine(int port) const {
  return "lsof -ti tcp:" + std::to_string(port) + " | xargs kill -9 2>/dev/null || true";
}

}  // namespace kestrune
