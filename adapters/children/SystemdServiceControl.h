#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Shell lines that stop systemd user units and end processes.
class SystemdServiceControl final : public ServiceControl {
 public:
  /// When the service manager hangs, the first of these lines in a script takes 1 s, each later one 0.2 s.
  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;
};

}  // namespace kestrune
