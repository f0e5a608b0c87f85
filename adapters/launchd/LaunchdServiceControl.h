#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// The user's launchd jobs, and the process tools of macOS.
class LaunchdServiceControl final : public ServiceControl {
 public:
  /// `userID` is the numeric id of the user whose jobs are meant.
  explicit LaunchdServiceControl(unsigned userID);

  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;

 private:
  const std::string domain;
};

}  // namespace kestrune
