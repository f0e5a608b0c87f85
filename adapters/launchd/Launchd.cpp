#include "adapters/launchd/Launchd.h"

namespace kestrune {

std::string LaunchdAgents::path(const std::string& label) const {
  return files.homeDirectoryPath() + "/Library/LaunchAgents/" + label + ".plist";
}

bool LaunchdAgents::isRegistered(const std::string& label) const {
  return files.fileExists(path(label));
}

/// Ignores the repository's path: the program finds the repository from its own path.
std::optional<std::string> LaunchdAgents::document(const std::string& label,
                                                   const std::string& executablePath,
                                                   const std::string&) const {
  return R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>Label</key>
  <string>)" +
         label + R"(</string>
  <key>ProgramArguments</key>
  <array>
    <string>)" +
         executablePath + R"(</string>
  </array>
  <key>RunAtLoad</key>
  <true/>
  <key>KeepAlive</key>
  <false/>
</dict>
</plist>)";
}

void LaunchdAgents::repair(const std::string&, const std::string&) {}

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
