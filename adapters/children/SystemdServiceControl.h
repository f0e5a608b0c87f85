#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Returns shell commands, one line each, that stop systemd user units or end processes. Does not run them.
class SystemdServiceControl final : public ServiceControl {
 public:
  std::string unloadLine(const std::string& label) const override;
  std::string endMatchingLine(const std::string& pattern) const override;
  std::string killListenersLine(int port) const override;
};

}  // namespace kestrune
