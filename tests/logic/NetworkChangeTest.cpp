#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

constexpr NetworkPath noNetwork{};
constexpr NetworkPath wiFi{.satisfied = true, .usesWiFi = true};
constexpr NetworkPath wired{.satisfied = true, .usesWiredEthernet = true};

struct NetworkChange : WithStatusItem {
  NetworkChange() {
    controller->startMonitoringNetwork();
    newCalls();
  }

  void report(const NetworkPath& path) {
    machine.pathMonitor.report(path);
    machine.loop.settle();
  }
  /// Reports `path` as the first network path, and advances the clock until the controller has reconnected.
  /// Forgets the launches, the notifications and the calls so far.
  void startOn(const NetworkPath& path) {
    report(path);
    machine.loop.advance(Seconds{1.25});
    machine.processes.launches.clear();
    machine.notifications.posted.clear();
    newCalls();
  }
};

TEST_F(NetworkChange, DescribesThePath) {
  for (unsigned bits = 0; bits < 16; ++bits) {
    const NetworkPath path{.satisfied = (bits & 8) != 0,
                           .usesWiFi = (bits & 4) != 0,
                           .usesWiredEthernet = (bits & 2) != 0,
                           .usesCellular = (bits & 1) != 0};
    report(path);
    const std::string expected = !path.satisfied          ? "網路未連線"
                                 : path.usesWiFi          ? "Wi-Fi 已連線"
                                 : path.usesWiredEthernet ? "有線網路已連線"
                                 : path.usesCellular      ? "行動網路已連線"
                                                          : "網路已連線";
    EXPECT_EQ(title(10), "目前網路：" + expected);
  }
}

TEST_F(NetworkChange, NotifiesAndReconnectsOnce) {
  refreshAnswers({.status = 1, .output = "x"});
  machine.pathMonitor.report(wiFi);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(),
            (CallLog{"notify Kestrune 網路已變更", "create display assertion", "create system assertion",
                     std::string("setMenu ") + reconnectingRow, "setButton Kestrune · 檢查中 · 目前專案"}));
  machine.loop.advance(Seconds{5});
  EXPECT_EQ(reconnects(), 1U);
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_TRUE(machine.alerts.shown.empty());
  ASSERT_EQ(machine.notifications.posted.size(), 1U);
  EXPECT_EQ(machine.notifications.posted[0].title, "Kestrune 網路已變更");
  EXPECT_EQ(machine.notifications.posted[0].body, "已自動嘗試重新連接本地服務與反向隧道。");
}

TEST_F(NetworkChange, IsEveryPathOfAnotherKind) {
  report(noNetwork);
  EXPECT_EQ(reconnects(), 1U) << "the first, whatever it is";
  report(wiFi);
  report(wired);
  report(noNetwork);
  EXPECT_EQ(reconnects(), 4U) << "also during a reconnect";
  EXPECT_EQ(machine.notifications.posted.size(), 4U);
  report(noNetwork);
  EXPECT_EQ(reconnects(), 4U);
  EXPECT_EQ(machine.notifications.posted.size(), 4U);
}

TEST_F(NetworkChange, PathOfTheSameKindOnlyRefreshes) {
  startOn(wiFi);
  machine.pathMonitor.report({.satisfied = true, .usesWiFi = true, .usesCellular = true});
  machine.pathMonitor.report(wiFi);
  machine.loop.advance(Seconds{5});
  EXPECT_EQ(machine.processes.launches.size(), 1U) << "the second during the refresh of the first";
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_TRUE(machine.notifications.posted.empty());
  EXPECT_TRUE(machine.alerts.shown.empty());
}

TEST_F(NetworkChange, UnchangedPathDuringAReconnectDoesNothing) {
  report(wiFi);
  newCalls();
  report(wiFi);
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(NetworkChange, WithAutoConnectOffOnlyNotifies) {
  startOn(wiFi);
  setAutoConnect(false);
  const CallLog drawing{std::string("setMenu ") + disabledRow, "setButton Kestrune · 檢查中 · 未同步"};
  report(wired);
  EXPECT_EQ(newCalls(), (CallLog{"release display assertion", "release system assertion", drawing[0],
                                 drawing[1], "notify Kestrune 網路已變更"}));
  ASSERT_EQ(machine.notifications.posted.size(), 1U);
  EXPECT_EQ(machine.notifications.posted[0].title, "Kestrune 網路已變更");
  EXPECT_EQ(machine.notifications.posted[0].body,
            "目前已停用自動重連；需要時請手動點選「立即重新檢查連線」。");
  for (const bool reconnecting : {false, true}) {
    state.reconnectInProgress = reconnecting;
    report(wired);
    EXPECT_EQ(newCalls(), drawing) << "the path has not changed";
  }
  machine.loop.advance(Seconds{5});
  EXPECT_TRUE(machine.processes.launches.empty());
}

TEST_F(NetworkChange, StoresThePathOnTheMonitorQueue) {
  setAutoConnect(false);
  machine.pathMonitor.report(wiFi);
  machine.loop.mainQueue().async([this] {
    EXPECT_EQ(newCalls(), CallLog{});
    controller->rebuildMenu("x", ConnectionLampState::ok, 0);
    EXPECT_EQ(title(10), "目前網路：Wi-Fi 已連線");
    // This job changes the preference after the path was reported. The next job on the main queue handles the
    // new path, and must use the new value of the preference.
    setAutoConnect(true);
    newCalls();
  });
  machine.loop.runMain();
  EXPECT_EQ(newCalls().front(), "notify Kestrune 網路已變更");
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
}

TEST_F(NetworkChange, HandlerDoesNotKeepTheControllerAlive) {
  const std::weak_ptr<AppDelegate> weak = controller;
  const auto queue = std::move(state.monitorQueue);
  controller.reset();
  EXPECT_TRUE(weak.expired());
  report(wiFi);
  EXPECT_EQ(newCalls(), CallLog{});
  EXPECT_TRUE(machine.processes.launches.empty());
}

TEST_F(NetworkChange, IsIgnoredAfterTheEnd) {
  machine.pathMonitor.report(wiFi);
  controller->applicationWillTerminate();
  newCalls();
  report(wired);
  EXPECT_EQ(newCalls(), CallLog{});
}

}  // namespace
}  // namespace kestrune::testing
