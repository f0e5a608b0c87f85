#include "KestruneMenuClient/status/StatusSnapshot.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <nlohmann/json.hpp>

#include "KestruneMenuClient/settings/Preferences.h"
#include "text/Text.h"

namespace kestrune {

using Json = nlohmann::json;

namespace {

constexpr int schema = 2;

// A text for each enumerator, in the order of the enumerators. `networkRows` is shown in the menu; the other
// arrays hold the names in JSON.
constexpr std::array lampNames{"ok", "warning", "error"};
constexpr std::array verdictNames{"unknown", "ok", "needs_check"};
constexpr std::array networkNames{"unknown", "none", "wifi", "wired", "cellular", "other"};
constexpr std::array networkRows{"未知網路",       "網路未連線",     "Wi-Fi 已連線",
                                 "有線網路已連線", "行動網路已連線", "網路已連線"};

template <typename Enum, std::size_t Count>
const char* nameOf(Enum value, const std::array<const char*, Count>& names) {
  return names[static_cast<std::size_t>(value)];
}

std::string formatted(std::int64_t time, const char* format, bool local) {
  const auto seconds = static_cast<std::time_t>(time);
  char text[64] = "";
  std::strftime(text, sizeof text, format, local ? std::localtime(&seconds) : std::gmtime(&seconds));
  return text;
}

std::string asLine(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// Returns the member `name` as a row shows it, or null if it is a placeholder.
Json nameOrNull(const LiveSession& session, std::string LiveSession::*name) {
  for (const LiveSession& placeholder : {LiveSession(), LiveSession::disabled, LiveSession::notConfigured})
    if (session.*name == placeholder.*name) return nullptr;
  return displayRow(session.*name);
}

std::vector<std::string> statusLines(const StatusSnapshot& snapshot, bool fromClient) {
  std::vector<std::string> lines = statusRows(snapshot);
  lines.push_back(std::string("自動維持連線：") + (snapshot.autoConnect ? "已開啟" : "已關閉"));
  lines.push_back("檢查時間：" + (snapshot.checkedAt
                                      ? formatted(*snapshot.checkedAt, "%Y-%m-%d %H:%M:%S", true)
                                      : std::string("尚未檢查")));
  if (!fromClient) lines.emplace_back("沒有可回應的菜單欄程式，以上是剛才另外檢查的結果。");
  for (std::string& line : lines) line = displayRow(line);
  return lines;
}

}  // namespace

std::vector<std::string> statusRows(const StatusSnapshot& snapshot) {
  std::vector<std::string> rows{
      std::string(menuIcon(snapshot.lamp)) + " 連線狀態：" + snapshot.status,
      std::string("連接模式：") + Preferences::labelOfMode(snapshot.officialMode),
  };
  for (std::size_t i = 0; i < codexItems.size(); ++i)
    rows.push_back(codexRow(codexItems[i].rowPrefix, snapshot.codex[i]));
  rows.push_back("同步專案：" + snapshot.session.projectTitle);
  rows.push_back("同步會話：" + compactThreadName(snapshot.session.threadName));
  rows.push_back(std::string("目前網路：") + nameOf(snapshot.network, networkRows));
  rows.push_back(std::string("保持喚醒：") + (snapshot.keepsAwake ? "已開啟" : "已關閉"));
  return rows;
}

std::string statusJson(const StatusSnapshot& snapshot, bool fromClient) {
  Json value{{"schema", schema},
             {"source", fromClient ? "client" : "check"},
             {"lamp", nameOf(snapshot.lamp, lampNames)},
             {"checked_at", nullptr},
             {"connection_mode", Preferences::nameOfMode(snapshot.officialMode)},
             {"project", nameOrNull(snapshot.session, &LiveSession::projectTitle)},
             {"thread", nameOrNull(snapshot.session, &LiveSession::threadName)},
             {"network", nullptr},
             {"auto_connect", snapshot.autoConnect},
             {"reconnecting", snapshot.reconnecting},
             {"keeps_awake", snapshot.keepsAwake},
             {"lines", statusLines(snapshot, fromClient)},
             {"rows",
              {{"connection_mode", Preferences::labelOfMode(snapshot.officialMode)},
               {"status", displayRow(snapshot.status)},
               {"project", displayRow(snapshot.session.projectTitle)},
               {"thread", displayRow(snapshot.session.threadName)},
               {"network", nameOf(snapshot.network, networkRows)}}}};
  if (snapshot.checkedAt) value["checked_at"] = formatted(*snapshot.checkedAt, "%Y-%m-%dT%H:%M:%SZ", false);
  if (snapshot.network != NetworkKind::unknown) value["network"] = nameOf(snapshot.network, networkNames);
  for (std::size_t i = 0; i < codexItems.size(); ++i) {
    const auto& [verdict, detail] = snapshot.codex[i];
    value[codexItems[i].name] = nameOf(verdict, verdictNames);
    value[std::string(codexItems[i].name) + "_detail"] = displayRow(detail);
    value["rows"][codexItems[i].name] = displayRow(codexRow(codexItems[i].rowPrefix, snapshot.codex[i]));
  }
  return asLine(value);
}

std::optional<PublishedStatus> parseStatusJson(std::string_view line) {
  try {
    const Json value = Json::parse(line);
    const Json& lampName = value.at("lamp");
    const auto lamp = std::find(lampNames.begin(), lampNames.end(), lampName);
    if (value.at("schema") != schema || lamp == lampNames.end()) return std::nullopt;
    return PublishedStatus{static_cast<ConnectionLampState>(lamp - lampNames.begin()),
                           value.at("keeps_awake").get<bool>(),
                           value.at("lines").get<std::vector<std::string>>()};
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

std::string statusForWaybar(const PublishedStatus& status) {
  std::string toolTip;
  for (const std::string& line : status.lines) toolTip += (toolTip.empty() ? "" : "\n") + line;
  // Waybar interprets markup.
  toolTip = replacingAll(replacingAll(replacingAll(toolTip, "&", "&amp;"), "<", "&lt;"), ">", "&gt;");
  const char* const lamp = nameOf(status.lamp, lampNames);
  return asLine({{"text", menuIcon(status.lamp)}, {"alt", lamp}, {"class", lamp}, {"tooltip", toolTip}});
}

}  // namespace kestrune
