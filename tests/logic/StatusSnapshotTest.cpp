#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "tests/rig/ScopedVariable.h"

namespace kestrune::testing {
namespace {

using nlohmann::json;

/// A snapshot in which no member has its default value.
const StatusSnapshot full{.lamp = ConnectionLampState::error,
                          .status = "異常",
                          .officialMode = true,
                          .codex = {{{CodexVerdict::ok, "1"}, {CodexVerdict::needsCheck, "2"}}},
                          .session = {"project", "thread"},
                          .network = NetworkKind::wifi,
                          .keepsAwake = true,
                          .autoConnect = false,
                          .reconnecting = true,
                          .checkedAt = 1'768'475'045};

TEST(StatusSnapshot, JsonHasEveryMember) {
  json value = json::parse(statusJson(full, true));
  value.erase("lines");
  EXPECT_EQ(value, json::parse(R"({
    "schema": 2, "source": "client", "lamp": "error", "checked_at": "2026-01-15T11:04:05Z",
    "connection_mode": "official_chatgpt", "codex_cli": "ok", "codex_cli_detail": "1",
    "codex_remote_control": "needs_check", "codex_remote_control_detail": "2", "codex_app": "unknown",
    "codex_app_detail": "", "chatgpt_remote": "unknown", "chatgpt_remote_detail": "",
    "project": "project", "thread": "thread", "network": "wifi",
    "keeps_awake": true, "auto_connect": false, "reconnecting": true,
    "rows": {"status": "異常", "connection_mode": "官方 ChatGPT", "codex_cli": "Codex：OK 1",
             "codex_remote_control": "Remote Control：需檢查 2", "codex_app": "Codex App：尚未檢查",
             "chatgpt_remote": "ChatGPT Remote：尚未檢查", "project": "project", "thread": "thread",
             "network": "Wi-Fi 已連線"}})"));
}

TEST(StatusSnapshot, JsonNamesTheNetwork) {
  for (const auto& [path, name] :
       {std::pair(NetworkPath{}, json("none")),
        {NetworkPath{.satisfied = true, .usesWiFi = true, .usesWiredEthernet = true}, "wifi"},
        {NetworkPath{.satisfied = true, .usesWiredEthernet = true, .usesCellular = true}, "wired"},
        {NetworkPath{.satisfied = true, .usesCellular = true}, "cellular"},
        {NetworkPath{.satisfied = true}, "other"}}) {
    EXPECT_EQ(json::parse(statusJson({.network = networkKind(path)}, true))["network"], name);
  }
  EXPECT_TRUE(json::parse(statusJson({}, true))["network"].is_null());
}

TEST(StatusSnapshot, JsonHasNullForPlaceholders) {
  for (const LiveSession& session : {LiveSession(), LiveSession::disabled, LiveSession::notConfigured}) {
    StatusSnapshot snapshot;
    snapshot.session = session;
    const json value = json::parse(statusJson(snapshot, true));
    EXPECT_TRUE(value.at("project").is_null()) << session.projectTitle;
    EXPECT_TRUE(value.at("thread").is_null()) << session.threadName;
    EXPECT_EQ(value["rows"]["project"], session.projectTitle);
  }
  EXPECT_EQ(json::parse(statusJson({}, true))["connection_mode"], "kestrune_self_hosted");
}

TEST(StatusSnapshot, JsonNamesLampAndSource) {
  for (const auto& [lamp, name] : {std::pair(ConnectionLampState::ok, "ok"),
                                   {ConnectionLampState::warning, "warning"},
                                   {ConnectionLampState::error, "error"}})
    EXPECT_EQ(json::parse(statusJson({.lamp = lamp}, true))["lamp"], name);
  EXPECT_EQ(json::parse(statusJson({}, false))["source"], "check");
  EXPECT_TRUE(json::parse(statusJson({}, true)).at("checked_at").is_null());
}

TEST(StatusSnapshot, JsonIsOneLine) {
  StatusSnapshot odd = full;
  odd.status = "a\nb\x1b[31m\"\\";
  odd.session = {std::string("\0x\xff", 3), std::string(100000, 'x')};
  const std::string line = statusJson(odd, true);
  EXPECT_EQ(line.find_first_of(std::string("\n\x1b\0", 3)), std::string::npos);
  EXPECT_LT(line.size(), 5000U);
  EXPECT_EQ(json::parse(line)["rows"]["status"], "a b\"\\");
}

TEST(StatusSnapshot, ParsesItsOwnJson) {
  const json value = json::parse(statusJson(full, true));
  const PublishedStatus status = parseStatusJson(value.dump()).value();
  EXPECT_EQ(status.lamp, ConnectionLampState::error);
  EXPECT_TRUE(status.keepsAwake);
  EXPECT_EQ(json(status.lines), value["lines"]);
}

TEST(StatusSnapshot, RejectsOtherJson) {
  const json good = json::parse(statusJson(full, true));
  std::vector<std::string> lines{"", "{", "[]", "null", "{\"schema\": 2}", "rubbish"};
  for (const char* const name : {"schema", "lamp", "keeps_awake", "lines"}) {
    json without = good, odd = good;
    without.erase(name);
    odd[name] = json::object();
    lines.push_back(without.dump());
    lines.push_back(odd.dump());
  }
  for (const auto& [name, value] : {std::pair<const char*, json>("schema", 1), {"lamp", "blue"}}) {
    json other = good;
    other[name] = value;
    lines.push_back(other.dump());
  }
  for (const auto& line : lines) EXPECT_EQ(parseStatusJson(line), std::nullopt) << line;
}

std::string textOf(const StatusSnapshot& snapshot, bool fromClient) {
  std::string text;
  const auto status = parseStatusJson(statusJson(snapshot, fromClient));
  for (const auto& line : status.value().lines) text += line + "\n";
  return text;
}

TEST(StatusSnapshot, TextHasTheRowsAndTheTime) {
  const ScopedVariable zone("TZ", "TST-8");
  EXPECT_EQ(
      textOf(full, true),
      "🔴 連線狀態：異常\n連接模式：官方 ChatGPT\nCodex：OK 1\nRemote Control：需檢查 2\nCodex App：尚未檢查\n"
      "ChatGPT Remote：尚未檢查\n同步專案：project\n同步會話：thread\n目前網路：Wi-Fi 已連線\n"
      "保持喚醒：已開啟\n自動維持連線：已關閉\n檢查時間：2026-01-15 19:04:05\n");
}

TEST(StatusSnapshot, TextAndToolTipHaveNoControls) {
  const StatusSnapshot odd{.status = "a\x1b]0;b\x07\nc\u202Ed", .session = {"\r<b>a</b> & c", ""}};
  const std::string text = textOf(odd, true);
  EXPECT_EQ(text.find_first_of("\x1b\x07\r"), std::string::npos);
  EXPECT_NE(text.find("🟡 連線狀態：a c d\n"), std::string::npos) << text;
  const std::string toolTip =
      json::parse(statusForWaybar(parseStatusJson(statusJson(odd, true)).value()))["tooltip"];
  EXPECT_NE(toolTip.find("同步專案： &lt;b&gt;a&lt;/b&gt; &amp; c"), std::string::npos) << toolTip;
}

TEST(StatusSnapshot, TextSaysThatNoClientRuns) {
  const std::string text = textOf({}, false);
  EXPECT_NE(text.find("檢查時間：尚未檢查\n沒有可回應的菜單欄程式"), std::string::npos) << text;
  EXPECT_EQ(textOf({}, true).find("沒有可回應"), std::string::npos);
}

TEST(StatusSnapshot, WaybarHasTheLampAndAToolTip) {
  const json value = json::parse(statusForWaybar({ConnectionLampState::error, true, {"first", "second"}}));
  EXPECT_EQ(value,
            json::parse(R"({"text": "🔴", "alt": "error", "class": "error", "tooltip": "first\nsecond"})"));
}

}  // namespace
}  // namespace kestrune::testing
