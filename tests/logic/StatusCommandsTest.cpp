#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

/// What both commands that show the backend's report have in common.
struct BothStatusCommands : ControllerTest, ::testing::WithParamInterface<const char*> {
  BothStatusCommands() { makeStatusItem(); }

  const Alert& window() const { return machine.alerts.shown.back(); }
};

TEST_P(BothStatusCommands, AskForTheStatusOnTheWorker) {
  controller->performAction(GetParam());
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), CallLog{});
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
  EXPECT_EQ(machine.processes.launches.back().arguments,
            (std::vector<std::string>{"-lc", controller->backendCommandLine("status")}));
}

TEST_P(BothStatusCommands, GiveTheBackendTwelveSeconds) {
  backendAnswers({.runtime = Seconds{11.9}, .output = "x"});
  controller->performAction(GetParam());
  EXPECT_NEAR(timeOfWorkerJob().count(), 11.9, 0.051);
  machine.loop.settle();
  EXPECT_EQ(window().informativeText, "x");
  machine.alerts.answer(0);
  backendAnswers({.runtime = Seconds{60}, .output = "x"});
  controller->performAction(GetParam());
  EXPECT_NEAR(timeOfWorkerJob().count(), 12.2, 0.051);
  machine.loop.settle();
  EXPECT_EQ(window().informativeText, "x\n命令逾時，已停止等待。");
}

TEST_P(BothStatusCommands, ShowTheWholeReportInReadableForm) {
  backendAnswers({.output = "[OK] a（b）\n\n[FAIL] c: d\ne [OK]"});
  choose(GetParam());
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_EQ(window().informativeText, "🟢 a（b）\n\n🔴 c: d\ne 🟢");
  EXPECT_EQ(window().buttons, std::vector<std::string>{"好"});
  EXPECT_EQ(window().style, AlertStyle::informational);
}

TEST_P(BothStatusCommands, FillTheSummariesAtOnce) {
  backendAnswers({.output = "[OK] Codex CLI: 0.46.0\n[FAIL] Codex App: missing"});
  controller->performAction(GetParam());
  machine.loop.runOneWorkerJob();
  EXPECT_EQ(state.codexVersionSummary, "Codex：尚未檢查");
  machine.loop.runMain();
  EXPECT_EQ(state.codexVersionSummary, "Codex：OK 0.46.0");
  EXPECT_EQ(state.codexAppSummary, "Codex App：需檢查 missing");
}

TEST_P(BothStatusCommands, AreNotDroppedDuringARefresh) {
  state.statusRefreshInProgress = true;
  choose(GetParam());
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
}

TEST_P(BothStatusCommands, WorkAlsoWithAutoConnectOffAndLeaveItOff) {
  setAutoConnect(false);
  choose(GetParam());
  EXPECT_EQ(window().informativeText, "沒有輸出。");
  EXPECT_FALSE(controller->isAutoConnectEnabled());
}

TEST_P(BothStatusCommands, PostNoNotification) {
  choose(GetParam());
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_P(BothStatusCommands, KeepTheControllerAliveUntilTheyAreDone) {
  const std::weak_ptr<AppDelegate> weak = controller;
  controller->performAction(GetParam());
  controller.reset();
  machine.loop.runOneWorkerJob();
  EXPECT_FALSE(weak.expired());
  machine.loop.settle();
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
  EXPECT_TRUE(weak.expired());
}

INSTANTIATE_TEST_SUITE_P(Commands, BothStatusCommands,
                         ::testing::Values("showStatus", "showCodexRuntimeStatus"),
                         [](const auto& each) { return each.param; });

struct ShowStatus : ControllerTest {
  ShowStatus() { makeStatusItem(); }
};

TEST_F(ShowStatus, InformsOfASuccess) {
  backendAnswers({.output = "[FAIL] tunnel: down"});
  choose("showStatus");
  EXPECT_EQ(machine.alerts.shown, std::vector{informationWindow("目前狀態", "🔴 tunnel: down")});
}

TEST_F(ShowStatus, WarnsOfAFailure) {
  backendAnswers({.status = 1, .output = "[OK] a"});
  choose("showStatus");
  backendAnswers({.runtime = Seconds{60}});
  choose("showStatus");
  machine.processes.launchError = "Cannot allocate memory";
  choose("showStatus");
  machine.alerts.answer(0);
  machine.loop.runMain();
  machine.alerts.answer(0);
  machine.loop.runMain();
  EXPECT_EQ(machine.alerts.shown,
            (std::vector{errorWindow("目前狀態", "🟢 a"), errorWindow("目前狀態", "命令逾時，已停止等待。"),
                         errorWindow("目前狀態", "Cannot allocate memory")}));
}

TEST_F(ShowStatus, BeginsARefreshAndThenAsksForItsWindow) {
  bool asked = false;
  machine.alerts.whenAsked = [&] {
    asked = true;
    EXPECT_TRUE(state.statusRefreshInProgress);
    EXPECT_EQ(machine.loop.workerJobs(), 1U);
  };
  controller->performAction("showStatus");
  EXPECT_FALSE(state.statusRefreshInProgress);
  machine.loop.runOneWorkerJob();
  newCalls();
  machine.loop.runMain();
  EXPECT_TRUE(asked);
  EXPECT_EQ(newCalls(), (CallLog{"present alert", "show alert 目前狀態"}));
}

TEST_F(ShowStatus, ShowsItsWindowBeforeTheRefreshIsDoneAndTheMenuWithIt) {
  choose("showStatus");
  EXPECT_EQ(statusQueries(), 2U);
  EXPECT_EQ(newCalls(), (CallLog{"launch /bin/bash", "present alert", "show alert 目前狀態",
                                 "launch /bin/bash", "create display assertion", "create system assertion",
                                 "setMenu 🟢 連線狀態：已連線",
                                 "setButton Kestrune · 已連線 · " + state.currentProjectTitle}));
}

struct ShowCodexRuntimeStatus : ControllerTest {
  ShowCodexRuntimeStatus() { makeStatusItem(); }
};

TEST_F(ShowCodexRuntimeStatus, RebuildsTheMenuWithoutTouchingTheButton) {
  controller->performAction("showCodexRuntimeStatus");
  machine.loop.runOneWorkerJob();
  newCalls();
  machine.loop.settle();
  EXPECT_EQ(newCalls(), (CallLog{"setMenu 🟢 連線狀態：Codex 診斷已更新", "present alert",
                                 "show alert Codex 版本與 Remote Control"}));
}

TEST_F(ShowCodexRuntimeStatus, MenuAlreadyShowsTheSummaries) {
  backendAnswers({.output = "[OK] Codex CLI: 0.46.0"});
  choose("showCodexRuntimeStatus");
  EXPECT_EQ(machine.statusBar.menus.size(), 2U);
  EXPECT_EQ(machine.statusBar.row(4).title, "Codex：OK 0.46.0");
}

TEST_F(ShowCodexRuntimeStatus, LampIsThatOfTheReport) {
  struct Case {
    int status;
    const char* output;
    const char* row;
  };
  const Case cases[] = {
      {0, "[OK] Mac service: running", "🟢 連線狀態：Codex 診斷已更新"},
      {0, "[FAIL] Codex CLI: missing", "🟢 連線狀態：Codex 診斷已更新"},
      {0, "[FAIL] tunnel: down", "🔴 連線狀態：Codex 診斷已更新"},
      {1, "[FAIL] tunnel: down", "🔴 連線狀態：Codex 診斷已更新"},
      {1, "x", "🟡 連線狀態：Codex 診斷已更新"},
  };
  for (const Case& each : cases) {
    backendAnswers({.status = each.status, .output = each.output});
    choose("showCodexRuntimeStatus");
    EXPECT_EQ(statusRow(), each.row) << each.output;
  }
}

TEST_F(ShowCodexRuntimeStatus, WindowIsNeverAnError) {
  backendAnswers({.status = 1, .output = "[FAIL] x"});
  choose("showCodexRuntimeStatus");
  backendAnswers({.runtime = Seconds{60}});
  choose("showCodexRuntimeStatus");
  machine.processes.launchError = "Cannot allocate memory";
  choose("showCodexRuntimeStatus");
  machine.alerts.answer(0);
  machine.loop.runMain();
  machine.alerts.answer(0);
  machine.loop.runMain();
  constexpr auto title = "Codex 版本與 Remote Control";
  EXPECT_EQ(machine.alerts.shown,
            (std::vector{informationWindow(title, "🔴 x"), informationWindow(title, "命令逾時，已停止等待。"),
                         informationWindow(title, "Cannot allocate memory")}));
}

TEST_F(ShowCodexRuntimeStatus, StartsNoRefreshAndTouchesNeitherFlagsNorAssertions) {
  state.reconnectInProgress = true;
  controller->ensureSleepAssertion();
  backendAnswers({.status = 1, .output = "x"});
  choose("showCodexRuntimeStatus");
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_FALSE(state.statusRefreshInProgress);
  EXPECT_TRUE(state.reconnectInProgress);
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
}

}  // namespace
}  // namespace kestrune::testing
