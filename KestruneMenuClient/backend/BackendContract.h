#pragma once

#include <array>

// The names by which the client finds the backend's services, processes and commands.

namespace kestrune::backend {

/// Service labels, in the order of unloading.
inline constexpr std::array serviceLabels{
    "com.kestrune.mac-service", "com.kestrune.mac-tunnel", "com.kestrune.desktop-bridge",
    "com.halvask.mac-service",  "com.halvask.mac-tunnel",  "com.halvask.desktop-bridge",
};

/// Substrings of the command lines of the backend's processes; the last is the tunnel's `ssh -R` argument.
inline constexpr std::array processPatterns{
    "kestrune-mac-service",   "kestrune-desktop-bridge",        "halvask-mac-service",
    "halvask-desktop-bridge", "127.0.0.1:18765:127.0.0.1:8765",
};

/// The TCP ports that the backend listens on.
inline constexpr std::array ports{8765, 8766};

inline constexpr auto clientProgram = "kestrune-mac-client";
inline constexpr auto legacyClientProgram = "halvask-mac-client";

}  // namespace kestrune::backend
