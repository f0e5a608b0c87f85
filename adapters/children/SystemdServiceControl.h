#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Writes shell lines that stop systemd user units and end processes.
class SystemdServiceControl final : public ServiceControl {
 public:
  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;
};

}  // namespace kestrune
