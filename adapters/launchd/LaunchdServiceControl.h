#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Lines of shell for the user's launchd jobs and for the processes of macOS.
class LaunchdServiceControl final : public ServiceControl {
 public:
  /// `userID` is the numeric ID of the user who owns the jobs.
  explicit LaunchdServiceControl(unsigned userID);

  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;

 private:
  const std::string domain;
};

}  // namespace kestrune
