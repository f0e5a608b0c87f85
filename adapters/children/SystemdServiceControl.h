#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Writes shell lines that stop systemd user units and end processes.
class SystemdServiceControl final : public ServiceControl {
 public:
  /// When the service manager hangs, such a line ends after 1.2 s, and after 0.2 s once two seconds have
  /// passed since the first of these lines in the script.
  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;
};

}  // namespace kestrune
