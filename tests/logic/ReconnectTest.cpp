#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Reconnect : WithStatusItem {
  /// Reconnects, and waits until the refresh at the end of the reconnect is done.
  void reconnect(bool showWindow, const std::optional<std::string>& extraContent = std::nullopt) {
    controller->reconnectServices(showWindow, "刷新連線", extraContent);
    machine.loop.settle();
    machine.loop.advance(Seconds{1.25});
  }
};

TEST_F(Reconnect, RunsOnTheWorkerAndIsShownOnTheMainQueue) {
  controller->reconnectServices(false);
  EXPECT_EQ(newCalls(), CallLog{});
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(),
            (CallLog{"create display assertion", "create system assertion",
                     std::string("setMenu ") + reconnectingRow, "setButton Kestrune · 檢查中 · 目前專案"}));
  EXPECT_EQ(title(11), "保持喚醒：已開啟");
  EXPECT_EQ(title(18), reconnectingCommand);
  EXPECT_FALSE(row(18).enabled);
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
  EXPECT_EQ(machine.processes.launches.back().arguments,
            (std::vector<std::string>{"-lc", controller->backendCommandLine("refresh")}));
}

TEST_F(Reconnect, GivesTheBackendTwelveSecondsAndSettlingTime) {
  refreshAnswers({.runtime = Seconds{11.9}, .output = "x"});
  controller->reconnectServices(true);
  EXPECT_NEAR(timeOfWorkerJob().count(), 11.9, 0.051);
  machine.clock.sleep(Seconds{5});
  machine.loop.settle();
  machine.loop.advance(Seconds{1.19});
  EXPECT_EQ(statusQueries(), 0U) << "counted from when the main thread has the answer";
  EXPECT_TRUE(machine.alerts.shown.empty());
  EXPECT_EQ(statusRow(), reconnectingRow);
  machine.loop.advance(Seconds{0.02});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), connectedRow);
  EXPECT_EQ(closeWindow(), informationWindow("刷新連線", "x"));
  refreshAnswers({.runtime = Seconds{60}, .output = "x"});
  controller->reconnectServices(true);
  EXPECT_NEAR(timeOfWorkerJob().count(), 12.2, 0.051);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(closeWindow(), errorWindow("刷新連線", "x\n命令逾時，已停止等待。"));
}

TEST_F(Reconnect, WindowShowsTheOutputAndTheExtraContent) {
  const std::pair<std::optional<std::string>, const char*> cases[] = {
      {std::nullopt, "🟢 a\n🔴 b"},
      {"", "🟢 a\n🔴 b"},
      {"[OK] as it is", "🟢 a\n🔴 b\n\n[OK] as it is"},
      {" ", "🟢 a\n🔴 b\n\n "},
  };
  refreshAnswers({.output = "[OK] a\n[FAIL] b"});
  backendAnswers({.status = 1, .output = "[FAIL] tunnel: down"});
  for (const auto& [extraContent, content] : cases) {
    reconnect(true, extraContent);
    EXPECT_EQ(closeWindow(), informationWindow("刷新連線", content));
  }
}

TEST_F(Reconnect, FailureIsShownAndNotRetried) {
  refreshAnswers({.status = 1, .output = "[OK] Codex CLI: 1"});
  reconnect(true, "more");
  EXPECT_EQ(closeWindow(), errorWindow("刷新連線", "🟢 Codex CLI: 1\n\nmore"));
  EXPECT_EQ(statusRow(), connectedRow) << "the status decides";
  EXPECT_EQ(title(4), "Codex：尚未檢查");
  reconnect(false, "more");
  machine.loop.advance(Seconds{100});
  EXPECT_EQ(reconnects(), 2U);
  EXPECT_EQ(statusQueries(), 2U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  machine.processes.launchError = "Cannot allocate memory";
  reconnect(true);
  EXPECT_EQ(closeWindow(), errorWindow("刷新連線", "Cannot allocate memory"));
}

TEST_F(Reconnect, WindowIsShownWhenTheFinalRefreshIsDropped) {
  controller->reconnectServices(true);
  machine.loop.settle();
  state.statusRefreshInProgress = true;
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusQueries(), 0U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_EQ(title(18), reconnectingCommand);
}

TEST_F(Reconnect, EndsWithAnEarlierStatusQuery) {
  bool commandRan = false;
  refreshAnswers({.runtime = Seconds{1}, .whileRunning = [&] {
                    commandRan = true;
                    EXPECT_EQ(title(18), "手動停止連線");
                    EXPECT_EQ(statusRow(), connectedRow);
                  }});
  controller->refreshStatus(false);
  controller->reconnectServices(false);
  machine.loop.runMain();
  EXPECT_EQ(title(18), reconnectingCommand);
  machine.loop.settle();
  EXPECT_TRUE(commandRan);
  machine.loop.advance(Seconds{1.25});
  EXPECT_EQ(statusQueries(), 2U);
}

TEST_F(Reconnect, TwoReconnectsRunOneAfterTheOther) {
  refreshAnswers({.runtime = Seconds{2}});
  controller->reconnectServices(true);
  controller->reconnectServices(true, "設定已保存");
  machine.loop.runMain();
  EXPECT_EQ(machine.loop.workerJobs(), 2U);
  machine.loop.settle();
  ASSERT_EQ(reconnects(), 2U);
  const auto& launches = machine.processes.launches;
  EXPECT_NEAR((launches[1].at - launches[0].at).count(), 2, 0.051);
  machine.loop.advance(Seconds{5});
  EXPECT_EQ(statusQueries(), 2U);
  EXPECT_EQ(closeWindow(), informationWindow("刷新連線", "沒有輸出。"));
  EXPECT_EQ(closeWindow(), informationWindow("設定已保存", "沒有輸出。"));
  EXPECT_EQ(title(18), "手動停止連線");
}

}  // namespace
}  // namespace kestrune::testing
