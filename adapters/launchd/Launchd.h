#pragma once

#include <optional>
#include <string>

#include "ports/FileManager.h"
#include "ports/LaunchAgents.h"
#include "ports/ServiceControl.h"

namespace kestrune {

/// Finds and builds the files of launch agents on macOS. Such a file is a property list.
class LaunchdAgents final : public LaunchAgents {
 public:
  /// `givenFiles` must outlive this object.
  explicit LaunchdAgents(const FileManager& givenFiles) : files(givenFiles) {}

  std::string path(const std::string& label) const override {
    return files.homeDirectoryPath() + "/Library/LaunchAgents/" + label + ".plist";
  }
  bool areRead() const override { return true; }
  bool isRegistered(const std::string& label) const override { return files.fileExists(path(label)); }
  /// Ignores the repository's path: the program finds the repository from its own path.
  std::optional<std::string> document(const std::string& label, const std::string& executablePath,
                                      const std::string&) const override {
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
  /// Does nothing. On macOS, an upgrade does not change the path of the program.
  void repair(const std::string&, const std::string&) override {}

 private:
  const FileManager& files;
};

/// Builds shell lines that unload the user's launchd jobs and end processes.
class LaunchdServiceControl final : public ServiceControl {
 public:
  explicit LaunchdServiceControl(unsigned userID) : domain("gui/" + std::to_string(userID)) {}

  std::string unloadLine(const std::string& label) const override {
    return "launchctl bootout " + domain + "/" + label + " || true";
  }
  std::string endMatchingLine(const std::string& pattern) const override {
    return "pkill -f '" + pattern + "' || true";
  }
  std::string killListenersLine(int port) const override {
    return "lsof -ti tcp:" + std::to_string(port) + " | xargs kill -9 2>/dev/null || true";
  }

 private:
  const std::string domain;
};

}  // namespace kestrune
