#pragma once

#include <string_view>

#include "ports/PathMonitor.h"

namespace kestrune {

/// A kind of network path.
struct PathKind {
  const char* name;  ///< for programs
  const char* description;
};

/// In the order in which they are tried.
inline constexpr PathKind pathKinds[] = {{"none", "網路未連線"},
                                         {"wifi", "Wi-Fi 已連線"},
                                         {"wired", "有線網路已連線"},
                                         {"cellular", "行動網路已連線"},
                                         {"other", "網路已連線"}};

/// The menu's text for a network path.
constexpr const char* pathDescription(const NetworkPath& path) {
  const bool applies[] = {!path.satisfied, path.usesWiFi, path.usesWiredEthernet, path.usesCellular, true};
  const PathKind* kind = pathKinds;
  for (const bool* each = applies; !*each; ++each) ++kind;
  return kind->description;
}

/// The name of the kind that the menu describes so; null when none is.
constexpr const char* pathName(std::string_view description) {
  for (const PathKind& each : pathKinds) {
    if (each.description == description) return each.name;
  }
  return nullptr;
}

}  // namespace kestrune
