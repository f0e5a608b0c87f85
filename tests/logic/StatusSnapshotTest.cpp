#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <ostream>
#include <tuple>

#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "tests/rig/ScopedVariable.h"

namespace kestrune {

inline void PrintTo(const StatusSnapshot& snapshot, std::ostream* stream) {
  *stream << statusJson(snapshot, true);
}

}  // namespace kestrune

namespace kestrune::testing {
namespace {

using nlohmann::json;

/// Every member has a value of its own.
const StatusSnapshot full{.lamp = ConnectionLampState::error,
                          .status = "異常",
                          .connectionMode = "官方 ChatGPT",
                          .codexVersion = "Codex：1",
                          .codexRemoteControl = "Remote Control：2",
                          .codexApp = "Codex App：3",
                          .chatGPTRemote = "ChatGPT Remote：4",
                          .project = "project",
                          .thread = "thread",
                          .network = "Wi-Fi 已連線",
                          .keepsAwake = true,
                          .autoConnect = false,
                          .reconnecting = true,
                          .checkedAt = 1'768'475'045};

TEST(StatusSnapshot, AsJsonHasEveryMember) {
  EXPECT_EQ(json::parse(statusJson(full, true)), json::parse(R"({
    "schema": 1, "source": "client", "lamp": "error", "checked_at": "2026-01-15T11:04:05Z",
    "status": "異常", "connection_mode": "官方 ChatGPT", "codex_cli": "Codex：1",
    "codex_remote_control": "Remote Control：2", "codex_app": "Codex App：3", "chatgpt_remote": "ChatGPT Remote：4",
    "project": "project", "thread": "thread", "network": "Wi-Fi 已連線",
    "keeps_awake": true, "auto_connect": false, "reconnecting": true})"));
}

TEST(StatusSnapshot, NamesLampAndSourceAndHasAnExitCodeForEachLamp) {
  for (const auto& [lamp, name, code] : {std::tuple(ConnectionLampState::ok, "ok", 0),
                                         {ConnectionLampState::warning, "warning", 3},
                                         {ConnectionLampState::error, "error", 4}}) {
    EXPECT_EQ(json::parse(statusJson({.lamp = lamp}, true))["lamp"], name);
    EXPECT_EQ(statusExitCode(lamp), code);
  }
  EXPECT_EQ(json::parse(statusJson({}, false))["source"], "check");
  EXPECT_TRUE(json::parse(statusJson({}, true)).at("checked_at").is_null());
}

TEST(StatusSnapshot, AsJsonIsOneLineOfTextWhateverTheTextsAre) {
  StatusSnapshot odd = full;
  odd.status = "a\nb\x1b[31m\"\\";
  odd.project = std::string("\0x\xff", 3);
  odd.thread = std::string(100000, 'x');
  const std::string line = statusJson(odd, true);
  EXPECT_EQ(line.find_first_of(std::string("\n\x1b\0", 3)), std::string::npos);
  EXPECT_LT(line.size(), 5000U);
  EXPECT_EQ(json::parse(line)["status"], "a b\"\\");
}

TEST(StatusSnapshot, IsReadBackAsItWasAlsoWithMembersThatAreNotKnown) {
  EXPECT_EQ(parseStatusJson(statusJson(full, true)), full);
  EXPECT_EQ(parseStatusJson(statusJson({}, false)), StatusSnapshot{});
  json value = json::parse(statusJson(full, true));
  value["more"] = {1, 2};
  EXPECT_EQ(parseStatusJson(value.dump()), full);
}

TEST(StatusSnapshot, IsNotReadFromAnythingElse) {
  const json good = json::parse(statusJson(full, true));
  std::vector<std::string> lines{"", "{", "[]", "null", "{\"schema\": 1}", "rubbish"};
  for (const auto& [name, ignored] : good.items()) {
    if (name == "source") continue;
    json without = good, odd = good;
    without.erase(name);
    odd[name] = json::array();
    lines.push_back(without.dump());
    lines.push_back(odd.dump());
  }
  for (const auto& [name, value] : {std::pair<const char*, json>("schema", 2), {"lamp", "blue"}}) {
    json other = good;
    other[name] = value;
    lines.push_back(other.dump());
  }
  for (const char* const time :
       {"", "now", "2026-13-01T00:00:00Z", "2026-02-30T00:00:00Z", "2026-01-01T24:00:00Z",
        "2026-01-01T00:60:00Z", "2026-01-01T00:00:61Z", "2026-01-01"}) {
    json other = good;
    other["checked_at"] = time;
    lines.push_back(other.dump());
  }
  for (const auto& line : lines) EXPECT_EQ(parseStatusJson(line), std::nullopt) << line;
}

TEST(StatusSnapshot, AsTextIsWhatTheMenuSaysAndWhenItWasChecked) {
  const ScopedVariable zone("TZ", "TST-8");
  EXPECT_EQ(statusText(full, true),
            "🔴 連線狀態：異常\n連接模式：官方 ChatGPT\nCodex：1\nRemote Control：2\nCodex App：3\n"
            "ChatGPT Remote：4\n同步專案：project\n同步會話：thread\n目前網路：Wi-Fi 已連線\n"
            "保持喚醒：已開啟\n自動維持連線：已關閉\n檢查時間：2026-01-15 19:04:05\n");
}

TEST(StatusSnapshot, CanOnlyBeRead) {
  const StatusSnapshot odd{.status = "a\x1b]0;b\x07\nc\u202Ed", .project = "\r<b>a</b> & c"};
  const std::string text = statusText(odd, true);
  EXPECT_EQ(text.find_first_of("\x1b\x07\r"), std::string::npos);
  EXPECT_NE(text.find("🟡 連線狀態：a c d\n"), std::string::npos) << text;
  const std::string toolTip = json::parse(statusForWaybar(odd, true))["tooltip"];
  EXPECT_NE(toolTip.find("同步專案： &lt;b&gt;a&lt;/b&gt; &amp; c"), std::string::npos) << toolTip;
}

TEST(StatusSnapshot, AsTextSaysThatNoClientRunsAndNothingWasChecked) {
  const std::string text = statusText({}, false);
  EXPECT_NE(text.find("檢查時間：尚未檢查\n沒有可回應的菜單欄程式"), std::string::npos) << text;
  EXPECT_EQ(statusText({}, true).find("沒有可回應"), std::string::npos);
}

TEST(StatusSnapshot, ForWaybarIsTheLampWithAllElseBehindIt) {
  const json value = json::parse(statusForWaybar(full, true));
  EXPECT_EQ(value["text"], "🔴");
  EXPECT_EQ(value["alt"], "error");
  EXPECT_EQ(value["class"], "error");
  const std::string toolTip = value["tooltip"];
  EXPECT_EQ(toolTip + "\n", statusText(full, true));
}

}  // namespace
}  // namespace kestrune::testing
