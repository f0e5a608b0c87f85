#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Shell lines that stop the user's launchd jobs and end processes.
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
