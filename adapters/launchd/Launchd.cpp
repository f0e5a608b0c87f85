#include "adapters/launchd/Launchd.h"

namespace kestrune {

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

}  // namespace kestrune
