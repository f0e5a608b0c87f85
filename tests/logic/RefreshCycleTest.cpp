#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct RefreshCycle : ControllerTest {
  RefreshCycle() { makeStatusItem(); }
};

TEST_F(RefreshCycle, AsksTheBackendsClientForItsStatus) {
  refresh();
  ASSERT_EQ(machine.processes.launches.size(), 1U);
  EXPECT_EQ(machine.processes.launches[0].executable, "/bin/bash");
  EXPECT_EQ(machine.processes.launches[0].arguments,
            (std::vector<std::string>{
                "-lc",
                "cd '/home/u/backend' && source .venv/bin/activate && "
                "{ command -v kestrune-mac-client >/dev/null 2>&1 && kestrune-mac-client status || "
                "halvask-mac-client status; }"}));
}

TEST_F(RefreshCycle, GivesTheBackendTwelveSeconds) {
  backendAnswers({.runtime = Seconds{11.9}, .output = "[OK] Mac service: running"});
  refresh();
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
  backendAnswers({.runtime = Seconds{60}, .output = "[OK] Mac service: running"});
  const Seconds begin = machine.clock.awakeTime();
  refresh();
  EXPECT_NEAR((machine.clock.awakeTime() - begin).count(), 12.2, 0.051);
  EXPECT_EQ(statusRow(), "🟡 連線狀態：[OK] Mac service: running");
}

TEST_F(RefreshCycle, RunsTheQueryOnTheWorkerAndShowsItOnTheMainThread) {
  controller->refreshStatus(false);
  machine.loop.runMain();
  EXPECT_TRUE(machine.processes.launches.empty());
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"launch /bin/bash"});
  EXPECT_TRUE(state.statusRefreshInProgress);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), (CallLog{"create display assertion", "create system assertion",
                                 "setMenu 🟢 連線狀態：已連線",
                                 "setButton Kestrune · 已連線 · " + state.currentProjectTitle}));
  EXPECT_FALSE(state.statusRefreshInProgress);
}

TEST_F(RefreshCycle, MarksItselfBeforeAnythingIsQueued) {
  EXPECT_FALSE(state.statusRefreshInProgress);
  controller->refreshStatus(false);
  EXPECT_TRUE(state.statusRefreshInProgress);
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(RefreshCycle, SecondOfTwoQuickRequestsIsDropped) {
  controller->refreshStatus(false);
  controller->refreshStatus(false);
  machine.loop.settle();
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.statusBar.menus.size(), 2U);
}

TEST_F(RefreshCycle, RequestDuringTheQueryIsDropped) {
  bool asked = false;
  backendAnswers({.runtime = Seconds{1}, .whileRunning = [&] {
                    controller->refreshStatus(true);
                    asked = true;
                  }});
  refresh();
  EXPECT_TRUE(asked);
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(RefreshCycle, RequestBetweenTheQueryAndItsResultIsDropped) {
  controller->refreshStatus(false);
  machine.loop.runOneWorkerJob();
  controller->refreshStatus(true);
  machine.loop.settle();
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(RefreshCycle, CompletedRefreshLetsTheNextOneRun) {
  refresh();
  refresh();
  EXPECT_EQ(statusQueries(), 2U);
}

TEST_F(RefreshCycle, FailedRefreshLetsTheNextOneRun) {
  machine.processes.launchError = "Resource temporarily unavailable";
  refresh();
  EXPECT_FALSE(state.statusRefreshInProgress);
  machine.processes.launchError.reset();
  refresh();
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
}

TEST_F(RefreshCycle, PostsItsNotificationLast) {
  refresh(true);
  ASSERT_EQ(machine.notifications.posted.size(), 1U);
  EXPECT_EQ(machine.notifications.posted[0].title, "Kestrune 網路已變更");
  EXPECT_EQ(machine.notifications.posted[0].body, "偵測到網路切換，已重新檢查本地服務與隧道狀態。");
  EXPECT_EQ(newCalls().back(), "notify Kestrune 網路已變更");
}

TEST_F(RefreshCycle, PostsItsNotificationAlsoAfterAFailure) {
  backendAnswers({.status = 1, .output = "x"});
  refresh(true);
  EXPECT_EQ(machine.notifications.posted.size(), 1U);
}

TEST_F(RefreshCycle, PostsNoNotificationUnlessAsked) {
  refresh(false);
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(RefreshCycle, DroppedRequestLosesItsNotification) {
  controller->refreshStatus(false);
  controller->refreshStatus(true);
  machine.loop.settle();
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(RefreshCycle, DroppedRequestDoesNotTakeAwayTheNotificationOfTheOneUnderWay) {
  controller->refreshStatus(true);
  controller->refreshStatus(false);
  machine.loop.settle();
  EXPECT_EQ(machine.notifications.posted.size(), 1U);
}

TEST_F(RefreshCycle, CompletedStatusEndsAReconnectThatWasMarkedAsRunning) {
  state.reconnectInProgress = true;
  controller->refreshStatus(false);
  machine.loop.runOneWorkerJob();
  EXPECT_TRUE(state.reconnectInProgress);
  machine.loop.runMain();
  EXPECT_FALSE(state.reconnectInProgress);
  EXPECT_FALSE(state.statusRefreshInProgress);
}

TEST_F(RefreshCycle, CompletedStatusEndsAReconnectWhoseCommandHasNotRunYet) {
  bool commandRan = false;
  controller->refreshStatus(false);
  machine.loop.mainQueue().async([this] { state.reconnectInProgress = true; });
  state.workerQueue->async([&] {
    EXPECT_FALSE(state.reconnectInProgress);
    commandRan = true;
  });
  machine.loop.settle();
  EXPECT_TRUE(commandRan);
  EXPECT_FALSE(state.reconnectInProgress);
}

TEST_F(RefreshCycle, FailedStatusEndsAReconnectToo) {
  backendAnswers({.status = 1, .output = "x"});
  state.reconnectInProgress = true;
  refresh();
  EXPECT_FALSE(state.reconnectInProgress);
}

TEST_F(RefreshCycle, MenuIsBuiltAfterBothFlagsAreCleared) {
  state.reconnectInProgress = true;
  int seen = 0;
  machine.statusBar.whenMenuIsSet = [&] {
    ++seen;
    EXPECT_FALSE(state.reconnectInProgress);
    EXPECT_FALSE(state.statusRefreshInProgress);
  };
  refresh();
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(machine.statusBar.row(18).title, "手動停止連線");
}

TEST_F(RefreshCycle, SuccessShowsTheLampsWordAndNeverTheCommandsOwn) {
  struct Case {
    const char* output;
    const char* row;
  };
  const Case cases[] = {
      {"[OK] Mac service: running", "🟢 連線狀態：已連線"},
      {"everything is fine", "🟢 連線狀態：已連線"},
      {"", "🟢 連線狀態：已連線"},
      {"\xff\xfe", "🟢 連線狀態：已連線"},
      {"[FAIL] tunnel: down", "🔴 連線狀態：異常"},
      {"Mac service 無回應", "🔴 連線狀態：異常"},
  };
  for (const Case& each : cases) {
    backendAnswers({.output = each.output});
    refresh();
    EXPECT_EQ(statusRow(), each.row) << each.output;
  }
}

TEST_F(RefreshCycle, FailureShowsTheFirstLineOfTheOutput) {
  struct Case {
    const char* output;
    const char* row;
  };
  const Case cases[] = {
      {"bash: cd: /home/u/backend: No such file or directory\nmore",
       "🟡 連線狀態：bash: cd: /home/u/backend: No such file or directory"},
      {"[FAIL] tunnel: down\n[OK] Mac service: running", "🔴 連線狀態：[FAIL] tunnel: down"},
      {"[OK] Mac service: running\n[FAIL] tunnel: down", "🔴 連線狀態：[OK] Mac service: running"},
      {"\n\n  first\nsecond", "🟡 連線狀態：first"},
      {"", "🟡 連線狀態：沒有輸出。"},
      {"a\r\nb", "🟡 連線狀態：a"},
      {"a\rb", "🟡 連線狀態：a"},
      {"a\vb", "🟡 連線狀態：a"},
      {"a\fb", "🟡 連線狀態：a"},
      {"a\u0085z", "🟡 連線狀態：a"},
      {"a\u2028b", "🟡 連線狀態：a"},
      {"a\u2029b", "🟡 連線狀態：a"},
      {"a\tb c", "🟡 連線狀態：a\tb c"},
      {"a \nb", "🟡 連線狀態：a "},
  };
  for (const Case& each : cases) {
    backendAnswers({.status = 1, .output = each.output});
    refresh();
    EXPECT_EQ(statusRow(), each.row) << each.output;
  }
}

TEST_F(RefreshCycle, TimeOutShowsWhatWasSaidFirstOrTheNotice) {
  backendAnswers({.runtime = Seconds{60}});
  refresh();
  EXPECT_EQ(statusRow(), "🟡 連線狀態：命令逾時，已停止等待。");
  backendAnswers({.runtime = Seconds{60}, .output = "checking\n"});
  refresh();
  EXPECT_EQ(statusRow(), "🟡 連線狀態：checking");
}

TEST_F(RefreshCycle, ShellThatCannotBeStartedIsShownByItsError) {
  machine.processes.launchError = "Cannot allocate memory";
  refresh();
  EXPECT_EQ(statusRow(), "🟡 連線狀態：Cannot allocate memory");
}

TEST_F(RefreshCycle, EmptyFirstLineIsShownAsEmpty) {
  for (const char* error : {"\nmore", "\r\nmore", "\u2028more", "\n"}) {
    machine.processes.launchError = error;
    refresh();
    EXPECT_EQ(statusRow(), "🟡 連線狀態：");
  }
}

TEST_F(RefreshCycle, StatusIsUnknownOnlyWhenNothingWasSaidAtAll) {
  machine.processes.launchError = "";
  refresh();
  EXPECT_EQ(statusRow(), "🟡 連線狀態：狀態未知");
}

TEST_F(RefreshCycle, UpdatesTheCodexSummariesFromTheSameOutput) {
  backendAnswers({.status = 1, .output = "[OK] Codex CLI: 0.46.0\n[FAIL] Codex App: missing"});
  refresh();
  EXPECT_EQ(machine.statusBar.row(4).title, "Codex：OK 0.46.0");
  EXPECT_EQ(machine.statusBar.row(6).title, "Codex App：需檢查 missing");
}

TEST_F(RefreshCycle, SuccessTakesTheAssertionsWhenThePreferencesAskForThem) {
  refresh();
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已開啟");
}

TEST_F(RefreshCycle, SuccessReleasesTheAssertionsWhenThePreferencesDoNotAskForThem) {
  refresh();
  machine.userDefaults.setBool("keepAwakeEnabled", false);
  refresh();
  EXPECT_TRUE(machine.powerAssertions.held.empty());
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已關閉");
}

TEST_F(RefreshCycle, FailureReleasesTheAssertionsUntilTheNextSuccess) {
  refresh();
  backendAnswers({.status = 1, .output = "x"});
  newCalls();
  refresh();
  EXPECT_EQ(newCalls(), (CallLog{"launch /bin/bash", "release display assertion", "release system assertion",
                                 "setMenu 🟡 連線狀態：x",
                                 "setButton Kestrune · 檢查中 · " + state.currentProjectTitle}));
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已關閉");
  backendAnswers({});
  refresh();
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已開啟");
}

TEST_F(RefreshCycle, TimeOutReleasesTheAssertions) {
  refresh();
  backendAnswers({.runtime = Seconds{60}});
  refresh();
  EXPECT_TRUE(machine.powerAssertions.held.empty());
}

TEST_F(RefreshCycle, BadLampAloneReleasesNothing) {
  backendAnswers({.output = "[FAIL] tunnel: down"});
  refresh();
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
}

TEST_F(RefreshCycle, BadLampStartsNoReconnect) {
  backendAnswers({.status = 1, .output = "[FAIL] tunnel: down"});
  refresh();
  EXPECT_EQ(machine.processes.launches.size(), 1U);
  EXPECT_FALSE(state.reconnectInProgress);
}

TEST_F(RefreshCycle, UpdatesTheButtonAfterTheMenu) {
  refresh();
  const CallLog calls = newCalls();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls[calls.size() - 2], "setMenu 🟢 連線狀態：已連線");
  EXPECT_EQ(calls.back().rfind("setButton Kestrune · 已連線 · ", 0), 0U);
}

TEST_F(RefreshCycle, KeepsTheControllerAliveUntilItIsDone) {
  const std::weak_ptr<AppDelegate> weak = controller;
  controller->refreshStatus(false);
  controller.reset();
  EXPECT_FALSE(weak.expired());
  machine.loop.runOneWorkerJob();
  EXPECT_FALSE(weak.expired());
  machine.loop.settle();
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
  EXPECT_TRUE(weak.expired());
}

TEST_F(RefreshCycle, WaitsBehindOtherWorkOfTheWorker) {
  state.workerQueue->async([this] { machine.log.emplace_back("other work"); });
  refresh();
  const CallLog calls = newCalls();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls[0], "other work");
  EXPECT_EQ(calls[1], "launch /bin/bash");
}

TEST_F(RefreshCycle, MainThreadSpendsNoTimeOnABackendThatHangs) {
  backendAnswers({.runtime = Seconds{60}});
  const Seconds begin = machine.clock.awakeTime();
  controller->refreshStatus(false);
  machine.loop.runMain();
  EXPECT_EQ(machine.clock.awakeTime(), begin);
  machine.loop.runOneWorkerJob();
  const Seconds end = machine.clock.awakeTime();
  EXPECT_GT(end - begin, Seconds{12});
  machine.loop.runMain();
  EXPECT_EQ(machine.clock.awakeTime(), end);
  EXPECT_EQ(statusRow(), "🟡 連線狀態：命令逾時，已停止等待。");
}

TEST_F(RefreshCycle, RepositoryWithAQuoteBreaksTheLineAndShowsWhatTheShellSays) {
  machine.mainBundle.environment["KESTRUNE_REPO_PATH"] = "/home/u/it's";
  const auto another = std::make_shared<AppDelegate>(machine.platform);
  another->configureStatusItem();
  backendAnswers(
      {.status = 2, .output = "bash: -c: line 1: unexpected EOF while looking for matching `''\n"});
  another->refreshStatus(false);
  machine.loop.settle();
  EXPECT_EQ(machine.processes.launchesOf("cd '/home/u/it's' && "), 1U);
  EXPECT_EQ(statusRow(),
            "🟡 連線狀態：bash: -c: line 1: unexpected EOF while looking for matching `''");
}

struct RefreshWithSession : RefreshCycle {
  RefreshWithSession() {
    env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret";
    machine.localService.answer =
        R"({"projects":[{"selected":true,"title":"Shop","thread_name":"Fix the checkout page for tablets"}]})";
  }

  /// Lets a refresh come as far as the answer of the backend's client.
  void beginRefresh(bool triggerNotification = false) {
    controller->refreshStatus(triggerNotification);
    machine.loop.runOneWorkerJob();
    machine.loop.runMain();
  }
};

TEST_F(RefreshWithSession, AsksForTheSessionOnceTheAssertionsAreInLineAndShowsEverythingAtTheEnd) {
  refresh(true);
  EXPECT_EQ(newCalls(), (CallLog{"launch /bin/bash", "create display assertion", "create system assertion",
                                 "ask local service", "setMenu 🟢 連線狀態：已連線",
                                 "setButton Kestrune · 已連線 · Shop", "notify Kestrune 網路已變更"}));
  EXPECT_EQ(machine.statusBar.row(8).title, "同步專案：Shop");
  EXPECT_EQ(machine.statusBar.row(9).title, "同步會話：Fix the checkout page for tablets");
}

TEST_F(RefreshWithSession, AsksForItAfterAFailureToo) {
  backendAnswers({.status = 1, .output = "x"});
  controller->ensureSleepAssertion();
  newCalls();
  refresh();
  EXPECT_EQ(newCalls(), (CallLog{"launch /bin/bash", "release display assertion", "release system assertion",
                                 "ask local service", "setMenu 🟡 連線狀態：x",
                                 "setButton Kestrune · 檢查中 · Shop"}));
}

TEST_F(RefreshWithSession, IsUnderWayUntilTheSessionIsKnown) {
  state.reconnectInProgress = true;
  beginRefresh(true);
  for (int step = 0; step < 2; ++step) {
    EXPECT_TRUE(state.statusRefreshInProgress);
    EXPECT_TRUE(state.reconnectInProgress);
    EXPECT_EQ(statusRow(), "🟡 連線狀態：正在檢查狀態…");
    EXPECT_TRUE(machine.notifications.posted.empty());
    machine.loop.runOneWorkerJob();
  }
  machine.loop.runMain();
  EXPECT_FALSE(state.statusRefreshInProgress);
  EXPECT_FALSE(state.reconnectInProgress);
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
  EXPECT_EQ(machine.notifications.posted.size(), 1U);
}

TEST_F(RefreshWithSession, RequestWhileTheSessionIsAskedForIsDropped) {
  bool asked = false;
  machine.localService.whileAsked = [&] {
    asked = true;
    controller->refreshStatus(true);
  };
  refresh();
  EXPECT_TRUE(asked);
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_TRUE(machine.notifications.posted.empty());
  refresh();
  EXPECT_EQ(statusQueries(), 2U);
}

TEST_F(RefreshWithSession, SummariesAndAssertionsDoNotWaitForTheSession) {
  backendAnswers({.output = "[OK] Codex CLI: 0.46.0"});
  beginRefresh();
  EXPECT_EQ(state.codexVersionSummary, "Codex：OK 0.46.0");
  EXPECT_TRUE(state.sleepAssertionActive);
  EXPECT_EQ(machine.statusBar.row(4).title, "Codex：尚未檢查");
  machine.loop.settle();
  EXPECT_EQ(machine.statusBar.row(4).title, "Codex：OK 0.46.0");
}

TEST_F(RefreshWithSession, FlagsOfBothAreClearedBeforeTheMenuIsBuilt) {
  state.reconnectInProgress = true;
  int seen = 0;
  machine.statusBar.whenMenuIsSet = [&] {
    ++seen;
    EXPECT_FALSE(state.reconnectInProgress);
    EXPECT_FALSE(state.statusRefreshInProgress);
    EXPECT_FALSE(state.liveSessionRefreshInProgress);
  };
  refresh();
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(machine.statusBar.row(18).title, "手動停止連線");
}

TEST_F(RefreshWithSession, ShowsTheSessionOfTheLastQueryForFortyFiveSeconds) {
  refresh();
  machine.localService.answer = R"({"projects":[{"selected":true,"title":"Another"}]})";
  machine.loop.advance(Seconds{44});
  newCalls();
  refresh();
  EXPECT_EQ(newCalls(), (CallLog{"launch /bin/bash", "setMenu 🟢 連線狀態：已連線",
                                 "setButton Kestrune · 已連線 · Shop"}));
  machine.loop.advance(Seconds{1});
  refresh();
  EXPECT_EQ(machine.statusBar.row(8).title, "同步專案：Another");
  EXPECT_EQ(machine.statusBar.row(9).title, "同步會話：Another");
}

TEST_F(RefreshWithSession, TicksAskForItEveryThirdTime) {
  controller->startPeriodicRefresh();
  machine.loop.advance(Seconds{20 * 7 + 1});
  EXPECT_EQ(statusQueries(), 7U);
  EXPECT_EQ(machine.localService.tokens.size(), 3U);
}

TEST_F(RefreshWithSession, ServiceThatHangsDelaysOnlyTheDrawing) {
  machine.localService.answer.reset();
  machine.localService.duration = Seconds{5};
  beginRefresh();
  const Seconds begin = machine.clock.awakeTime();
  machine.loop.runMain();
  EXPECT_EQ(machine.clock.awakeTime(), begin);
  machine.loop.settle();
  EXPECT_EQ(machine.clock.awakeTime(), begin + Seconds{5});
  EXPECT_EQ(statusRow(), "🟢 連線狀態：已連線");
  EXPECT_EQ(machine.statusBar.row(8).title, "同步專案：目前專案");
  EXPECT_EQ(machine.statusBar.row(9).title, "同步會話：尚未取得");
}

TEST_F(RefreshWithSession, LongThreadNameIsShortenedInTheMenuAndKeptInTheField) {
  const std::string name = "0123456789abcdefghijklmnopqrstuvwxy";
  machine.localService.answer =
      R"({"projects":[{"selected":true,"title":")" + name + R"(","thread_name":"  )" + name + R"("}]})";
  refresh();
  EXPECT_EQ(machine.statusBar.row(8).title, "同步專案：" + name);
  EXPECT_EQ(machine.statusBar.row(9).title, "同步會話：0123456789abcdefghijklmnopqrstu...");
  EXPECT_EQ(state.currentThreadName, "  " + name);
}

TEST_F(RefreshWithSession, WithoutATokenCompletesAtOnceAndSaysThatItIsMissing) {
  env().clear();
  beginRefresh();
  EXPECT_FALSE(state.statusRefreshInProgress);
  EXPECT_EQ(machine.statusBar.row(8).title, "同步專案：未配置");
  EXPECT_EQ(machine.statusBar.row(9).title, "同步會話：未配置");
  EXPECT_EQ(machine.statusBar.button().toolTip, "Kestrune · 已連線 · 未配置");
}

TEST_F(RefreshWithSession, KeepsTheControllerAliveUntilTheSessionIsKnown) {
  const std::weak_ptr<AppDelegate> weak = controller;
  controller->refreshStatus(false);
  controller.reset();
  machine.loop.runOneWorkerJob();
  machine.loop.runMain();
  EXPECT_FALSE(weak.expired());
  machine.loop.settle();
  EXPECT_EQ(machine.statusBar.row(8).title, "同步專案：Shop");
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace kestrune::testing
