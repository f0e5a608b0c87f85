#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Lines of shell for the user's systemd units and for the processes of Linux.
class SystemdServiceControl final : public ServiceControl {
 public:
  /// When the service manager hangs, the first of these lines in a script takes 1 s, each later one 0.2 s.
  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;
};

}  // namespace kestrune
