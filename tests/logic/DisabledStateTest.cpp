#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct DisabledState : ControllerTest {
  DisabledState() { makeStatusItem(); }
};

TEST_F(DisabledState, ReleasesAssertionsThenShowsMenuThenButton) {
  controller->ensureSleepAssertion();
  newCalls();
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(newCalls(), (CallLog{"release display assertion", "release system assertion",
                                 "setMenu 🟡 連線狀態：已停用，不會啟動背景服務",
                                 "setButton Kestrune · 檢查中 · 未同步"}));
}

TEST_F(DisabledState, ReleasesNothingWhenNothingIsHeld) {
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(newCalls(), (CallLog{"setMenu 🟡 連線狀態：已停用，不會啟動背景服務",
                                 "setButton Kestrune · 檢查中 · 未同步"}));
}

TEST_F(DisabledState, MenuAlreadyShowsThatNothingIsSynchronisedOrHeld) {
  controller->ensureSleepAssertion();
  state.currentProjectTitle = "Kestrune";
  state.currentThreadName = "Tests";
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(state.currentProjectTitle, "未同步");
  EXPECT_EQ(state.currentThreadName, "尚未啟動");
  EXPECT_EQ(machine.statusBar.row(8).title, "同步專案：未同步");
  EXPECT_EQ(machine.statusBar.row(9).title, "同步會話：尚未啟動");
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已關閉");
}

TEST_F(DisabledState, RunsNoCommand) {
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(machine.loop.workerJobs(), 0U);
  machine.loop.settle();
  EXPECT_TRUE(machine.processes.launches.empty());
}

TEST_F(DisabledState, TouchesNeitherFlag) {
  for (const bool set : {true, false}) {
    state.statusRefreshInProgress = set;
    state.reconnectInProgress = set;
    controller->presentAutoConnectDisabledState();
    EXPECT_EQ(state.statusRefreshInProgress, set);
    EXPECT_EQ(state.reconnectInProgress, set);
  }
}

TEST_F(DisabledState, LeavesTheCodexSummariesAndTheNetworkAlone) {
  state.codexVersionSummary = "Codex：OK 1";
  state.lastPathDescription = "Wi-Fi 已連線";
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(machine.statusBar.row(4).title, "Codex：OK 1");
  EXPECT_EQ(machine.statusBar.row(10).title, "目前網路：Wi-Fi 已連線");
}

TEST_F(DisabledState, WritesNoPreference) {
  controller->presentAutoConnectDisabledState();
  EXPECT_TRUE(machine.userDefaults.values.empty());
}

TEST_F(DisabledState, LeavesTheConnectionCommandAsItIsDuringAReconnect) {
  setAutoConnect(false);
  state.reconnectInProgress = true;
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(machine.statusBar.row(18).title, "正在重新檢查並恢復連線…");
  EXPECT_FALSE(machine.statusBar.row(18).enabled);
  state.reconnectInProgress = false;
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(machine.statusBar.row(18).title, "立即重新檢查連線");
}

}  // namespace
}  // namespace kestrune::testing
