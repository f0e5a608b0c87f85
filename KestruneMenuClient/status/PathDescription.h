#pragma once

#include "ports/PathMonitor.h"

namespace kestrune {

/// The menu's text for a network path.
constexpr const char* pathDescription(const NetworkPath& path) {
  if (!path.satisfied) return "網路未連線";
  if (path.usesWiFi) return "Wi-Fi 已連線";
  if (path.usesWiredEthernet) return "有線網路已連線";
  if (path.usesCellular) return "行動網路已連線";
  return "網路已連線";
}

}  // namespace kestrune
