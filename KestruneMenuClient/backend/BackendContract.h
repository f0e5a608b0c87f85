#pragma once

#include <array>

// What the backend and this client have agreed on: the names by which the client finds the backend's parts.

namespace kestrune::backend {

/// The service manager's labels, in the order in which they are unloaded.
inline constexpr std::array serviceLabels{
    "com.kestrune.mac-service", "com.kestrune.mac-tunnel", "com.kestrune.desktop-bridge",
    "com.halvask.mac-service",  "com.halvask.mac-tunnel",  "com.halvask.desktop-bridge",
};

/// What the command lines of the backend's processes contain; the last is the tunnel's forwarding.
inline constexpr std::array processPatterns{
    "kestrune-mac-service",   "kestrune-desktop-bridge",        "halvask-mac-service",
    "halvask-desktop-bridge", "127.0.0.1:18765:127.0.0.1:8765",
};

/// The TCP ports that the backend listens on.
inline constexpr std::array ports{8765, 8766};

inline constexpr auto clientProgram = "kestrune-mac-client";
inline constexpr auto legacyClientProgram = "halvask-mac-client";

}  // namespace kestrune::backend
