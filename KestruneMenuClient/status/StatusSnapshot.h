#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMenuClient/status/LiveSession.h"
#include "KestruneMenuClient/status/StatusReport.h"
#include "ports/PathMonitor.h"

namespace kestrune {

/// The status text that is shown while auto-connect is off.
inline constexpr auto disabledStatus = "已停用，不會啟動背景服務";

enum class NetworkKind { unknown, none, wifi, wired, cellular, other };
inline NetworkKind networkKind(const NetworkPath& path) {
  if (!path.satisfied) return NetworkKind::none;
  if (path.usesWiFi) return NetworkKind::wifi;
  if (path.usesWiredEthernet) return NetworkKind::wired;
  return path.usesCellular ? NetworkKind::cellular : NetworkKind::other;
}

/// The state that menu rows 2 to 11 show at one moment.
struct StatusSnapshot {
  ConnectionLampState lamp = ConnectionLampState::warning;
  std::string status{};
  bool officialMode = false;
  CodexFindings codex{};
  LiveSession session{};
  NetworkKind network = NetworkKind::unknown;
  bool keepsAwake = false;
  bool autoConnect = true;
  bool reconnecting = false;
  std::optional<std::int64_t> checkedAt{};  ///< seconds since 1970; absent before the backend's first report
};

/// Returns the texts of menu rows 2 to 11. The first shows the lamp and the status. The last says whether the
/// client keeps the machine awake.
std::vector<std::string> statusRows(const StatusSnapshot& snapshot);

// The status as other programs read it. The manual page describes the JSON members. The name and the meaning
// of a member stay the same within a schema version.

/// Returns one line of JSON. `fromClient` is true if a running client sent the status; false if this process
/// asked the backend itself.
std::string statusJson(const StatusSnapshot& snapshot, bool fromClient);

/// The part of a `statusJson` line that `parseStatusJson` returns.
struct PublishedStatus {
  ConnectionLampState lamp = ConnectionLampState::warning;
  bool keepsAwake = false;
  std::vector<std::string> lines{};  ///< the status as text; if no client answered, the last line says this
};

/// Parses a line of `statusJson`; absent when the line is invalid or from an incompatible version.
std::optional<PublishedStatus> parseStatusJson(std::string_view line);
/// Returns one line for a custom module of Waybar, a status bar.
std::string statusForWaybar(const PublishedStatus& status);

}  // namespace kestrune
