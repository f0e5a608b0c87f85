#include "KestruneMenuClient/status/StatusCommand.h"

#include <nlohmann/json.hpp>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using nlohmann::json;

const ChildScript healthy{.output = "[OK] Codex CLI: 1.2\n"};
const ChildScript faulty{.output = "[FAIL] tunnel\n"};

struct StatusCommandTest : ControllerTest {
  std::vector<std::string> printed;
  bool readerIsThere = true;
  std::shared_ptr<StatusCommand> command;

  void ask(StatusFormat format = StatusFormat::json, bool follow = false) {
    command = std::make_shared<StatusCommand>(machine.platform, StatusCommand::Options{format, follow},
                                              [this](const std::string& text) {
                                                printed.push_back(text);
                                                return readerIsThere;
                                              });
    newCalls();
    command->applicationDidFinishLaunching();
    machine.loop.settle();
  }
  void networkIs(const NetworkPath& path) {
    machine.pathMonitor.report(path);
    machine.loop.settle();
  }
  json lastPrinted() const { return printed.empty() ? json() : json::parse(printed.back()); }
};

// --- the status command while a client runs

TEST_F(StatusCommandTest, PrintsTheStatusOfTheRunningClient) {
  backendAnswers(healthy);
  startUp();
  const std::size_t before = statusQueries();
  ask();
  ASSERT_EQ(printed.size(), 1U);
  EXPECT_EQ(lastPrinted()["source"], "client");
  EXPECT_EQ(lastPrinted()["lamp"], "ok");
  EXPECT_EQ(lastPrinted()["codex_cli"], "ok");
  EXPECT_EQ(lastPrinted()["codex_cli_detail"], "1.2");
  EXPECT_EQ(statusQueries(), before);
  EXPECT_TRUE(machine.loop.isTerminated());
  EXPECT_EQ(command->exitCode(), 0);
  controller->rebuildMenu("x", ConnectionLampState::error, 0);
  machine.loop.settle();
  EXPECT_EQ(printed.size(), 1U);
  EXPECT_EQ(command->exitCode(), 0);
}

TEST_F(StatusCommandTest, FollowsTheRunningClient) {
  backendAnswers(healthy);
  startUp();
  ask(StatusFormat::json, true);
  ASSERT_EQ(printed.size(), 1U);
  backendAnswers(faulty);
  refresh();
  ASSERT_EQ(printed.size(), 2U);
  EXPECT_EQ(lastPrinted()["lamp"], "error");
  EXPECT_FALSE(machine.loop.isTerminated());
  EXPECT_EQ(command->exitCode(), 4);
  ask(StatusFormat::waybar, true);
  EXPECT_EQ(lastPrinted()["class"], "error");
}

TEST_F(StatusCommandTest, SeparatesFollowedTextsByAnEmptyLine) {
  startUp();
  ask(StatusFormat::text, true);
  machine.statusFeed.publish([line = machine.statusFeed.lines.back()] { return line + " "; });
  controller->rebuildMenu("x", ConnectionLampState::ok, 0);
  machine.loop.settle();
  ASSERT_EQ(printed.size(), 2U);
  EXPECT_TRUE(printed[0].starts_with(connectedRow));
  EXPECT_TRUE(printed[1].starts_with("\n🟢 連線狀態：x\n"));
}

TEST_F(StatusCommandTest, AsksTheBackendWhenTheClientEnds) {
  startUp();
  ask(StatusFormat::json, true);
  ASSERT_EQ(printed.size(), 1U);
  backendAnswers(faulty);
  machine.statusFeed.end();
  machine.loop.advance(Seconds{0.9});
  EXPECT_EQ(printed.size(), 1U);
  machine.loop.advance(Seconds{0.2});
  networkIs({.satisfied = true});
  ASSERT_EQ(printed.size(), 2U);
  EXPECT_EQ(lastPrinted()["source"], "check");
  EXPECT_EQ(lastPrinted()["lamp"], "error");
}

TEST_F(StatusCommandTest, WaitsForTheSuccessorOfAClientThatEnds) {
  startUp();
  ask(StatusFormat::json, true);
  const std::size_t before = statusQueries();
  machine.statusFeed.end();
  machine.loop.advance(Seconds{0.9});
  machine.statusFeed.publish([] { return statusJson({.status = "the successor"}, true); });
  machine.loop.settle();
  EXPECT_EQ(lastPrinted()["rows"]["status"], "the successor");
  machine.loop.advance(Seconds{5});
  EXPECT_EQ(statusQueries(), before);
}

TEST_F(StatusCommandTest, EndsWithAnErrorWhenItCannotPrint) {
  startUp();
  readerIsThere = false;
  ask(StatusFormat::json, true);
  EXPECT_TRUE(machine.loop.isTerminated());
  ask();
  EXPECT_EQ(command->exitCode(), 1);
}

// --- the status command when no client of this version runs

TEST_F(StatusCommandTest, AsksTheBackendWhenTheClientHasAnotherVersion) {
  machine.statusFeed.publish([] { return "{\"schema\": 2}"; });
  backendAnswers(healthy);
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret\n";
  machine.localService.answer = R"({"projects": [{"selected": true, "title": "P", "thread_name": "T"}]})";
  ask();
  EXPECT_TRUE(printed.empty());
  networkIs({.satisfied = true, .usesWiFi = true});
  ASSERT_EQ(printed.size(), 1U);
  const json said = lastPrinted();
  EXPECT_EQ(said["source"], "check");
  EXPECT_EQ(said["lamp"], "ok");
  EXPECT_EQ(said["project"], "P");
  EXPECT_EQ(said["thread"], "T");
  EXPECT_EQ(said["network"], "wifi");
  EXPECT_EQ(said["keeps_awake"], false);
  EXPECT_FALSE(said["checked_at"].is_null());
  EXPECT_EQ(machine.processes.launches.size(), 1U);
  EXPECT_TRUE(machine.loop.isTerminated());
  command->applicationWillTerminate();
  EXPECT_EQ(reconnects() + stops(), 0U);
  EXPECT_TRUE(machine.statusItem.menus.empty());
  EXPECT_TRUE(machine.statusItem.buttons.empty());
  EXPECT_TRUE(machine.alerts.shown.empty());
  EXPECT_TRUE(machine.notifications.posted.empty());
  EXPECT_TRUE(machine.powerAssertions.held.empty());
  EXPECT_EQ(machine.statusFeed.lines.size(), 1U);
}

TEST_F(StatusCommandTest, RunsNothingWithAutoConnectOff) {
  setAutoConnect(false);
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret\n";
  ask();
  networkIs({.satisfied = true});
  ASSERT_EQ(printed.size(), 1U);
  const json said = lastPrinted();
  EXPECT_EQ(said["rows"]["status"], "已停用，不會啟動背景服務");
  EXPECT_EQ(said["auto_connect"], false);
  EXPECT_EQ(said["rows"]["project"], "未同步");
  EXPECT_EQ(said["rows"]["thread"], "尚未啟動");
  EXPECT_TRUE(said["checked_at"].is_null());
  EXPECT_TRUE(machine.processes.launches.empty());
  EXPECT_TRUE(machine.localService.tokens.empty());
  EXPECT_EQ(command->exitCode(), 3);
}

TEST_F(StatusCommandTest, AsksTheBackendEveryTwentySecondsUntilAClientStarts) {
  backendAnswers(healthy);
  ask(StatusFormat::json, true);
  networkIs({.satisfied = true});
  networkIs({.satisfied = false});
  ASSERT_EQ(printed.size(), 1U);
  machine.loop.advance(Seconds{19.9});
  EXPECT_EQ(statusQueries(), 1U);
  machine.loop.advance(Seconds{0.2});
  EXPECT_EQ(statusQueries(), 2U);
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(statusQueries(), 3U);
  EXPECT_EQ(machine.loop.liveTimers(), 1U);
  EXPECT_EQ(reconnects(), 0U) << "although the network has changed";
  EXPECT_TRUE(machine.notifications.posted.empty());
  machine.statusFeed.publish([] { return statusJson({.status = "from the client"}, true); });
  machine.loop.settle();
  EXPECT_EQ(lastPrinted()["rows"]["status"], "from the client");
  machine.loop.advance(Seconds{60});
  networkIs({.satisfied = true});
  EXPECT_EQ(statusQueries(), 3U);
  EXPECT_EQ(lastPrinted()["source"], "client");
}

TEST_F(StatusCommandTest, PrefersAClientThatStartsMeanwhile) {
  backendAnswers(healthy);
  ask(StatusFormat::json, true);
  machine.statusFeed.publish([] { return statusJson({.status = "from the client"}, true); });
  networkIs({.satisfied = true});
  EXPECT_EQ(statusQueries(), 1U);
  ASSERT_EQ(printed.size(), 1U);
  EXPECT_EQ(lastPrinted()["rows"]["status"], "from the client");
  machine.loop.advance(Seconds{60});
  EXPECT_EQ(statusQueries(), 1U);
}

TEST_F(StatusCommandTest, KillsItsCommandWhenItEnds) {
  backendAnswers({.runtime = Seconds{100}});
  ask();
  machine.pathMonitor.report({.satisfied = true});
  machine.loop.runMain();
  ASSERT_EQ(machine.loop.workerJobs(), 1U);
  command->applicationWillTerminate();
  machine.loop.settle();
  EXPECT_EQ(machine.processes.reservations, 1);
  EXPECT_TRUE(machine.processes.launches.empty());
  EXPECT_TRUE(printed.empty());
  EXPECT_EQ(command->exitCode(), 1);
}

struct PublishedStatus : ControllerTest {
  json published() const { return json::parse(machine.statusFeed.lines.back()); }
};

TEST_F(PublishedStatus, EqualsTheMenu) {
  makeStatusItem();
  EXPECT_EQ(published()["rows"]["status"], "正在檢查狀態…");
  EXPECT_TRUE(published()["checked_at"].is_null());
  backendAnswers(faulty);
  refresh();
  EXPECT_EQ(published()["lamp"], "error");
  EXPECT_EQ(published()["checked_at"], "2026-01-15T11:20:00Z");
  choose("toggleConnectionMode");
  EXPECT_EQ(published()["connection_mode"], "official_chatgpt");
  controller->reconnectServices(false);
  machine.loop.runMain();
  EXPECT_EQ(published()["reconnecting"], true);
  choose("toggleAutoConnect");
  EXPECT_EQ(published()["auto_connect"], false);
}

TEST_F(StatusCommandTest, ExitZeroIgnoresTheLamp) {
  backendAnswers(faulty);
  startUp();
  const auto askForZero = [this] {
    command = std::make_shared<StatusCommand>(machine.platform, StatusCommand::Options{.exitZero = true},
                                              [this](const std::string&) { return readerIsThere; });
    command->applicationDidFinishLaunching();
    EXPECT_EQ(command->exitCode(), 1);
    machine.loop.settle();
    return command->exitCode();
  };
  EXPECT_EQ(askForZero(), 0);
  readerIsThere = false;
  EXPECT_EQ(askForZero(), 1);
}

}  // namespace
}  // namespace kestrune::testing
