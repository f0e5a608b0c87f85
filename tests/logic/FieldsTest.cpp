#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Fields : ControllerTest {};

TEST_F(Fields, NothingIsShownOrHeldAfterConstruction) {
  EXPECT_EQ(state.statusItem, nullptr);
  EXPECT_EQ(state.refreshTimer, nullptr);
  EXPECT_EQ(state.cachedConnectedLogo, nullptr);
  EXPECT_EQ(state.cachedDisconnectedLogo, nullptr);
  EXPECT_EQ(state.displaySleepAssertionID, 0U);
  EXPECT_EQ(state.systemSleepAssertionID, 0U);
  EXPECT_FALSE(state.sleepAssertionActive);
  EXPECT_TRUE(machine.images.asked.empty());
  EXPECT_EQ(machine.loop.liveTimers(), 0U);
}

TEST_F(Fields, NothingIsUnderWayAfterConstruction) {
  EXPECT_FALSE(state.reconnectInProgress);
  EXPECT_FALSE(state.statusRefreshInProgress);
  EXPECT_FALSE(state.liveSessionRefreshInProgress);
  EXPECT_EQ(state.lastLiveSessionRefreshAt, std::nullopt);
  EXPECT_EQ(machine.loop.workerJobs(), 0U);
  EXPECT_TRUE(machine.processes.launches.empty());
}

TEST_F(Fields, TextsSayThatNothingIsKnownYet) {
  EXPECT_EQ(state.lastPathDescription, "未知網路");
  EXPECT_EQ(state.currentProjectTitle, "目前專案");
  EXPECT_EQ(state.currentThreadName, "尚未取得");
  EXPECT_EQ(state.codexVersionSummary, "Codex：尚未檢查");
  EXPECT_EQ(state.codexRemoteControlSummary, "Remote Control：尚未檢查");
  EXPECT_EQ(state.codexAppSummary, "Codex App：尚未檢查");
  EXPECT_EQ(state.chatGPTRemoteSummary, "ChatGPT Remote：尚未檢查");
}

TEST_F(Fields, LaunchAgentLabelsAreThoseOfBothProductNames) {
  EXPECT_EQ(state.launchAgentLabel, "com.dovrel.kestrune.menuclient");
  EXPECT_EQ(state.legacyLaunchAgentLabel, "com.dovrel.halvask.menuclient");
}

TEST_F(Fields, MonitorQueueRunsBetweenOtherJobsOnTheMainThread) {
  ASSERT_EQ(machine.loop.madeQueues.size(), 2U);
  EXPECT_EQ(machine.loop.madeQueues[0].label, "kestrune.menu.monitor");
  EXPECT_EQ(machine.loop.madeQueues[0].qualityOfService, QualityOfService::standard);
  EXPECT_EQ(machine.loop.madeQueues[0].target, QueueTarget::mainThread);
  EXPECT_EQ(state.monitorQueue->label(), "kestrune.menu.monitor");
}

TEST_F(Fields, WorkerQueueRunsOnAThreadOfItsOwn) {
  ASSERT_EQ(machine.loop.madeQueues.size(), 2U);
  EXPECT_EQ(machine.loop.madeQueues[1].label, "kestrune.menu.worker");
  EXPECT_EQ(machine.loop.madeQueues[1].qualityOfService, QualityOfService::userInitiated);
  EXPECT_EQ(machine.loop.madeQueues[1].target, QueueTarget::ownThread);
  EXPECT_EQ(state.workerQueue->label(), "kestrune.menu.worker");
}

TEST_F(Fields, ConstructionMakesThePathMonitorAndThenBothQueues) {
  FakePlatform other;
  const AppDelegate another(other.platform);
  EXPECT_EQ(other.log, (CallLog{"makePathMonitor", "makeSerialQueue kestrune.menu.monitor",
                                "makeSerialQueue kestrune.menu.worker"}));
}

TEST_F(Fields, RepositoryIsLookedUpOnceAtConstruction) {
  EXPECT_EQ(state.repoPath, "/home/u/backend");
  machine.mainBundle.environment["KESTRUNE_REPO_PATH"] = "/elsewhere";
  machine.mainBundle.currentDirectory = "/";
  EXPECT_EQ(state.repoPath, "/home/u/backend");
  EXPECT_EQ(controller->backendCommandLine("status").rfind("cd '/home/u/backend' && ", 0), 0U);
}

TEST_F(Fields, DestructionEndsTheTimerAndNothingElse) {
  startUp();
  const std::weak_ptr<AppDelegate> weak = controller;
  controller.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(machine.loop.liveTimers(), 0U);
  EXPECT_EQ(newCalls(), CallLog{});
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
}

}  // namespace
}  // namespace kestrune::testing
