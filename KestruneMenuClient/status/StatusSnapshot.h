#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMenuClient/status/ConnectionLampState.h"
#include "KestruneMenuClient/status/LiveSession.h"
#include "KestruneMenuClient/status/StatusReport.h"

namespace kestrune {

/// The status of a client whose auto-connect is off.
inline constexpr auto disabledStatus = "已停用，不會啟動背景服務";

/// How things are, as the first rows of the menu say it.
struct StatusSnapshot {
  ConnectionLampState lamp = ConnectionLampState::warning;
  std::string status{};
  bool officialMode = false;
  std::string codexVersion{};
  std::string codexRemoteControl{};
  std::string codexApp{};
  std::string chatGPTRemote{};
  std::string project{};
  std::string thread{};
  std::string network{};
  bool keepsAwake = false;
  bool autoConnect = true;
  bool reconnecting = false;
  std::optional<std::int64_t> checkedAt{};  ///< seconds since 1970; absent when the backend was not asked yet

  void setCodex(const CodexFindings& findings);
  void setSession(const LiveSession& session);

  bool operator==(const StatusSnapshot&) const = default;
};

/// The rows of the menu that tell of the status, from the lamp's to that of the power assertion.
std::vector<std::string> statusRows(const StatusSnapshot& snapshot);

// Lines for other programs. Their members are described in the manual; what is there once stays.

/// One line of JSON. `fromClient`: told by a client that runs, and not found out for the occasion.
std::string statusJson(const StatusSnapshot& snapshot, bool fromClient);
/// The other way round; absent when `line` was written by a client that is too different.
std::optional<StatusSnapshot> parseStatusJson(std::string_view line);
/// One line as a custom module of Waybar reads it.
std::string statusForWaybar(const StatusSnapshot& snapshot, bool fromClient);
/// Lines for a person, each with its end.
std::string statusText(const StatusSnapshot& snapshot, bool fromClient);

/// What a script may tell the lamp by: 0 for ok, 3 for a warning, 4 for an error.
int statusExitCode(ConnectionLampState lamp);

}  // namespace kestrune
