#include "KestruneMenuClient/status/StatusSnapshot.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "KestruneMenuClient/settings/Preferences.h"
#include "KestruneMenuClient/status/PathDescription.h"
#include "text/Text.h"

namespace kestrune {

using Json = nlohmann::json;

namespace {

constexpr int schema = 2;
constexpr auto timeFormat = "%Y-%m-%dT%H:%M:%SZ";
constexpr auto noClientAnswers = "沒有可回應的菜單欄程式，以上是剛才另外檢查的結果。";

struct LampNames {
  const char* name;
  int exitCode;
};
constexpr std::array<LampNames, 3> lampNames{{{"ok", 0}, {"warning", 3}, {"error", 4}}};

const LampNames& namesOf(ConnectionLampState lamp) {
  return lampNames[static_cast<std::size_t>(lamp)];
}

std::string formatted(std::int64_t time, const char* format, bool local) {
  const auto seconds = static_cast<std::time_t>(time);
  const std::tm* const parts = local ? std::localtime(&seconds) : std::gmtime(&seconds);
  char text[64] = "";
  if (parts != nullptr) std::strftime(text, sizeof text, format, parts);
  return text;
}

std::optional<std::int64_t> parsedTime(const std::string& text) {
  int year = 0;
  unsigned month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(text.c_str(), "%4d-%2u-%2uT%2u:%2u:%2uZ", &year, &month, &day, &hour, &minute, &second) !=
      6) {
    return std::nullopt;
  }
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month),
                                         std::chrono::day(day)};
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  return ((days * 24 + hour) * 60 + minute) * 60 + second;
}

/// The members that hold a row's text, with their names in JSON.
struct TextMember {
  const char* name;
  std::string StatusSnapshot::*text;
};
/// In the order of `codexItems`.
constexpr TextMember codexMembers[] = {
    {"codex_cli", &StatusSnapshot::codexVersion},
    {"codex_remote_control", &StatusSnapshot::codexRemoteControl},
    {"codex_app", &StatusSnapshot::codexApp},
    {"chatgpt_remote", &StatusSnapshot::chatGPTRemote},
};
constexpr TextMember textMembers[] = {
    {"status", &StatusSnapshot::status},
    codexMembers[0],
    codexMembers[1],
    codexMembers[2],
    codexMembers[3],
    {"project", &StatusSnapshot::project},
    {"thread", &StatusSnapshot::thread},
    {"network", &StatusSnapshot::network},
};
struct FlagMember {
  const char* name;
  bool StatusSnapshot::*flag;
};
constexpr FlagMember flagMembers[] = {
    {"auto_connect", &StatusSnapshot::autoConnect},
    {"reconnecting", &StatusSnapshot::reconnecting},
    {"keeps_awake", &StatusSnapshot::keepsAwake},
};

constexpr auto modeMember = "connection_mode";
constexpr auto rowsMember = "rows";
constexpr const char* verdictNames[] = {"unknown", "ok", "needs_check"};

Json textOrNull(bool isKnown, const std::string& text) {
  return isKnown ? Json(displayRow(text)) : Json();
}

std::string asLine(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// Escapes a text for bars, which read markup.
std::string withoutMarkup(std::string_view text) {
  return replacingAll(replacingAll(replacingAll(text, "&", "&amp;"), "<", "&lt;"), ">", "&gt;");
}

std::vector<std::string> statusLines(const StatusSnapshot& snapshot, bool fromClient) {
  std::vector<std::string> lines = statusRows(snapshot);
  lines.push_back(std::string("自動維持連線：") + (snapshot.autoConnect ? "已開啟" : "已關閉"));
  lines.push_back("檢查時間：" + (snapshot.checkedAt
                                      ? formatted(*snapshot.checkedAt, "%Y-%m-%d %H:%M:%S", true)
                                      : std::string("尚未檢查")));
  if (!fromClient) lines.emplace_back(noClientAnswers);
  for (std::string& line : lines) line = displayRow(line);
  return lines;
}

}  // namespace

void StatusSnapshot::setCodex(const CodexFindings& findings) {
  for (std::size_t i = 0; i < codexItems.size(); ++i)
    this->*codexMembers[i].text = codexRow(codexItems[i], findings[i]);
}

void StatusSnapshot::setSession(const LiveSession& session) {
  project = session.projectTitle;
  thread = session.threadName;
}

std::vector<std::string> statusRows(const StatusSnapshot& snapshot) {
  return {
      std::string(menuIcon(snapshot.lamp)) + " 連線狀態：" + snapshot.status,
      std::string("連接模式：") + Preferences::labelOfMode(snapshot.officialMode),
      snapshot.codexVersion,
      snapshot.codexRemoteControl,
      snapshot.codexApp,
      snapshot.chatGPTRemote,
      "同步專案：" + snapshot.project,
      "同步會話：" + compactThreadName(snapshot.thread),
      "目前網路：" + snapshot.network,
      std::string("保持喚醒：") + (snapshot.keepsAwake ? "已開啟" : "已關閉"),
  };
}

std::string statusJson(const StatusSnapshot& snapshot, bool fromClient) {
  Json value{{"schema", schema},
             {"source", fromClient ? "client" : "check"},
             {"lamp", namesOf(snapshot.lamp).name},
             {"checked_at", nullptr},
             {modeMember, Preferences::nameOfMode(snapshot.officialMode)},
             {"network", nullptr}};
  if (snapshot.checkedAt) value["checked_at"] = formatted(*snapshot.checkedAt, timeFormat, false);
  if (const char* const network = pathName(snapshot.network)) value["network"] = network;
  for (std::size_t i = 0; i < codexItems.size(); ++i) {
    const CodexFinding finding = codexFindingOfRow(codexItems[i], displayRow(snapshot.*codexMembers[i].text));
    value[codexMembers[i].name] = verdictNames[static_cast<std::size_t>(finding.verdict)];
    value[std::string(codexMembers[i].name) + "_detail"] = finding.detail;
  }
  const LiveSession session{snapshot.project, snapshot.thread};
  value["project"] = textOrNull(session.hasProject(), snapshot.project);
  value["thread"] = textOrNull(session.hasThread(), snapshot.thread);
  Json& rows = value[rowsMember];
  rows[modeMember] = Preferences::labelOfMode(snapshot.officialMode);
  for (const auto& [name, text] : textMembers) rows[name] = displayRow(snapshot.*text);
  for (const auto& [name, flag] : flagMembers) value[name] = snapshot.*flag;
  return asLine(value);
}

std::optional<StatusSnapshot> parseStatusJson(std::string_view line) {
  StatusSnapshot snapshot;
  try {
    const Json value = Json::parse(line);
    if (value.at("schema") != schema) return std::nullopt;
    const std::string lamp = value.at("lamp");
    std::size_t at = 0;
    while (at < lampNames.size() && lampNames[at].name != lamp) ++at;
    if (at == lampNames.size()) return std::nullopt;
    snapshot.lamp = static_cast<ConnectionLampState>(at);
    const Json& mode = value.at(modeMember);
    snapshot.officialMode = mode == Preferences::nameOfMode(true);
    if (!snapshot.officialMode && mode != Preferences::nameOfMode(false)) return std::nullopt;
    for (const auto& [name, text] : textMembers) value.at(rowsMember).at(name).get_to(snapshot.*text);
    for (const auto& [name, flag] : flagMembers) value.at(name).get_to(snapshot.*flag);
    if (const Json& time = value.at("checked_at"); !time.is_null()) {
      snapshot.checkedAt = parsedTime(time.get<std::string>());
      if (!snapshot.checkedAt) return std::nullopt;
    }
  } catch (const Json::exception&) {
    return std::nullopt;
  }
  return snapshot;
}

std::string statusForWaybar(const StatusSnapshot& snapshot, bool fromClient) {
  std::string toolTip;
  for (const std::string& line : statusLines(snapshot, fromClient)) {
    toolTip += (toolTip.empty() ? "" : "\n") + withoutMarkup(line);
  }
  const char* const lamp = namesOf(snapshot.lamp).name;
  return asLine({{"text", menuIcon(snapshot.lamp)}, {"alt", lamp}, {"class", lamp}, {"tooltip", toolTip}});
}

std::string statusText(const StatusSnapshot& snapshot, bool fromClient) {
  std::string text;
  for (const std::string& line : statusLines(snapshot, fromClient)) text += line + "\n";
  return text;
}

int statusExitCode(ConnectionLampState lamp) {
  return namesOf(lamp).exitCode;
}

}  // namespace kestrune
