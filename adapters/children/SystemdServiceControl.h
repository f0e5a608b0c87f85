#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// The user's systemd units, and the process tools of Linux.
class SystemdServiceControl final : public ServiceControl {
 public:
  /// With a service manager that hangs, the first of these lines in a script takes 1 s, each other 0.2 s.
  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;
};

}  // namespace kestrune
