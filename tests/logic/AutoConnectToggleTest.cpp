#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct AutoConnectToggle : WithStatusItem {
  const Alert onWindow = informationWindow("已開啟自動連線",
                                           "之後換 Wi\xE2\x80\x91"
                                           "Fi、熱點或網路路徑時，Kestrune 會自動重新檢查並嘗試恢復連線。");
  const Alert offWindow =
      informationWindow("已關閉自動連線", "已停止本地服務、桌面橋接與反向隧道；之後換網時也不會自動重連。");
};

TEST_F(AutoConnectToggle, SwitchedOffQueuesTheStopAndThenShowsTheDisabledStateAndItsWindow) {
  controller->ensureSleepAssertion();
  newCalls();
  machine.statusBar.whenMenuIsSet = [&] {
    EXPECT_EQ(machine.loop.workerJobs(), 1U);
    EXPECT_TRUE(isStored("autoConnectEnabled", false));
  };
  controller->performAction("toggleAutoConnect");
  machine.loop.runMain();
  EXPECT_EQ(
      newCalls(),
      (CallLog{"release display assertion", "release system assertion", std::string("setMenu ") + disabledRow,
               "setButton Kestrune · 檢查中 · 未同步", "present alert", "show alert 已關閉自動連線"}));
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
  EXPECT_EQ(row(15).checked, false);
  EXPECT_EQ(machine.alerts.shown, std::vector{offWindow});
}

TEST_F(AutoConnectToggle, SwitchedOffRunsTheStopScriptOnTheWorkerForEightSecondsAtMost) {
  stopAnswers({.runtime = Seconds{60}});
  controller->performAction("toggleAutoConnect");
  EXPECT_NEAR(timeOfWorkerJob().count(), 8.2, 0.051);
  ASSERT_EQ(machine.processes.launches.size(), 1U);
  EXPECT_EQ(machine.processes.launches[0].arguments,
            (std::vector<std::string>{"-lc", controller->backendServiceStopCommand()}));
}

TEST_F(AutoConnectToggle, SwitchedOffIgnoresWhatComesOfTheStop) {
  for (const ChildScript& script : {ChildScript{.output = "[FAIL] Codex CLI: x"}, ChildScript{.status = 1},
                                    ChildScript{.runtime = Seconds{60}, .ignoresTerminate = true}}) {
    setAutoConnect(true);
    stopAnswers(script);
    controller->performAction("toggleAutoConnect");
    machine.loop.runMain();
    newCalls();
    machine.loop.runOneWorkerJob();
    newCalls();
    machine.loop.settle();
    EXPECT_EQ(newCalls(), CallLog{});
    EXPECT_EQ(closeWindow(), offWindow);
  }
  EXPECT_EQ(stops(), 3U);
  EXPECT_EQ(title(4), "Codex：尚未檢查");
}

TEST_F(AutoConnectToggle, SwitchedOnAsksForItsWindowAndThenReconnectsWithoutAnother) {
  setAutoConnect(false);
  refreshAnswers({.status = 1, .output = "x"});
  controller->performAction("toggleAutoConnect");
  EXPECT_EQ(newCalls(), CallLog{"present alert"});
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), (CallLog{"create display assertion", "create system assertion",
                                 std::string("setMenu ") + reconnectingRow,
                                 "setButton Kestrune · 檢查中 · 目前專案", "show alert 已開啟自動連線"}));
  EXPECT_TRUE(isStored("autoConnectEnabled", true));
  EXPECT_EQ(row(15).checked, true);
  closeWindow();
  machine.loop.advance(Seconds{5});
  EXPECT_EQ(reconnects(), 1U);
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.alerts.shown, std::vector{onWindow});
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(AutoConnectToggle, SwitchedOffAndOnStopsBeforeItReconnects) {
  controller->performAction("toggleAutoConnect");
  choose("toggleAutoConnect");
  ASSERT_EQ(machine.processes.launches.size(), 2U);
  EXPECT_EQ(machine.processes.launches[0].arguments.back(), controller->backendServiceStopCommand());
  EXPECT_EQ(machine.processes.launches[1].arguments.back(), controller->backendCommandLine("refresh"));
  EXPECT_EQ(closeWindow(), offWindow);
  EXPECT_EQ(closeWindow(), onWindow);
}

}  // namespace
}  // namespace kestrune::testing
