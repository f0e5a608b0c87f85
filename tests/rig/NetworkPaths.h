#pragma once

#include <ostream>

#include "ports/PathMonitor.h"

namespace kestrune {

inline void PrintTo(const NetworkPath& path, std::ostream* out) {
  *out << (path.satisfied ? "connected" : "disconnected") << (path.usesWiFi ? " Wi-Fi" : "")
       << (path.usesWiredEthernet ? " wired" : "") << (path.usesCellular ? " cellular" : "");
}

}  // namespace kestrune

namespace kestrune::testing {

inline constexpr NetworkPath disconnected{};
inline constexpr NetworkPath viaWiFi{.satisfied = true, .usesWiFi = true};
inline constexpr NetworkPath viaCable{.satisfied = true, .usesWiredEthernet = true};
inline constexpr NetworkPath viaSomething{.satisfied = true};

}  // namespace kestrune::testing
