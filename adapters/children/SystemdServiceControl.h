#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Writes shell lines that stop systemd user units and end processes.
class SystemdServiceControl final : public ServiceControl {
 public:
  /// If the service manager hangs, this line ends after 1.2 s. Once 2 s have passed since the first such line
  /// of the script began, this line ends after 0.2 s.
  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;
};

}  // namespace kestrune
