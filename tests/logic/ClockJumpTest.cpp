#include <functional>
#include <string>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

constexpr Seconds year{365 * 24 * 3600.0};

/// What a clock does while nobody looks: the machine sleeps and only the continuous one goes on, or the
/// process is kept from running and both do.
struct Jump {
  const char* name;
  bool asleep;
  Seconds duration;
};

struct ClockJump : ControllerTest, ::testing::WithParamInterface<Jump> {
  ClockJump() {
    env() = "KESTRUNE_MAC_SERVICE_TOKEN=t\n";
    startUp();
    machine.processes.launches.clear();
  }

  void jump() {
    if (GetParam().asleep) {
      machine.clock.suspend(GetParam().duration);
    } else {
      machine.clock.sleep(GetParam().duration);
    }
  }

  /// Something that jumps once, in the middle of what it is called by, and lets the main thread see it.
  std::function<void()> jumpOnce() {
    return [this, done = false]() mutable {
      if (std::exchange(done, true)) return;
      jump();
      machine.loop.serveMain();
    };
  }

  void expectNothingUnderWay() const {
    EXPECT_FALSE(state.statusRefreshInProgress);
    EXPECT_FALSE(state.reconnectInProgress);
    EXPECT_FALSE(state.liveSessionRefreshInProgress);
    EXPECT_EQ(machine.loop.workerJobs() + machine.loop.mainJobs() + machine.loop.delayedJobs(), 0U);
  }

  /// As if nothing had happened: a query every 20 seconds.
  void expectTicksGoOn() {
    const auto before = statusQueries();
    machine.loop.advance(Seconds{60.1});
    EXPECT_EQ(statusQueries(), before + 3);
    expectNothingUnderWay();
    EXPECT_EQ(statusRow(), connectedRow);
  }
};

TEST_P(ClockJump, InARefreshLeavesItsCommandItsTimeAndCostsOneTick) {
  // As much of its time as is left: the jump counts only for a process that is awake.
  backendAnswers({.runtime = Seconds{5}, .whileRunning = jumpOnce()});
  refresh();
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(statusRow(), connectedRow);
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
  expectNothingUnderWay();
  backendAnswers({});
  expectTicksGoOn();
}

TEST_P(ClockJump, InARefreshThatHangsEndsItOnlyByTheTimeThatIsSpentAwake) {
  backendAnswers({.runtime = 3 * year, .whileRunning = jumpOnce()});
  const Seconds begin = machine.clock.awakeTime();
  refresh();
  const Seconds spent = machine.clock.awakeTime() - begin;
  const Seconds limit = GetParam().asleep ? Seconds{12} : GetParam().duration;
  EXPECT_NEAR(spent.count(), limit.count() + 0.2, 0.1);
  EXPECT_EQ(statusRow(), "🟡 連線狀態：命令逾時，已停止等待。");
  EXPECT_TRUE(machine.powerAssertions.held.empty());
  expectNothingUnderWay();
  backendAnswers({});
  expectTicksGoOn();
}

TEST_P(ClockJump, InTheCommandOfAReconnectDoesNotLoseIt) {
  refreshAnswers({.runtime = Seconds{5}, .whileRunning = jumpOnce()});
  controller->reconnectServices(true);
  machine.loop.settle();
  EXPECT_TRUE(state.reconnectInProgress) << "a tick leaves it alone";
  EXPECT_EQ(statusQueries(), 0U);
  machine.loop.advance(Seconds{1.3});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.alerts.shown.back(), informationWindow("刷新連線", "沒有輸出。"));
  expectNothingUnderWay();
  expectTicksGoOn();
}

TEST_P(ClockJump, InThePauseOfAReconnectNeitherSkipsNorRepeatsItsEnd) {
  controller->reconnectServices(false);
  machine.loop.settle();
  machine.loop.advance(Seconds{0.6});
  jump();
  machine.loop.settle();
  if (GetParam().asleep) {
    EXPECT_EQ(statusQueries(), 0U) << "services that slept have not settled";
    EXPECT_TRUE(state.reconnectInProgress);
    machine.loop.advance(Seconds{0.5});
    EXPECT_EQ(statusQueries(), 0U);
    machine.loop.advance(Seconds{0.2});
  }
  EXPECT_EQ(statusQueries(), 1U);
  expectNothingUnderWay();
  expectTicksGoOn();
}

TEST_P(ClockJump, InALookAtTheSessionCountsTheIntervalFromItsEnd) {
  machine.loop.advance(Seconds{39.9});
  machine.clock.suspend(Seconds{45});
  machine.localService.whileAsked = jumpOnce();
  machine.localService.answer = R"({"projects": [{"selected": true, "title": "app"}]})";
  const auto before = machine.localService.tokens.size();
  refresh();
  EXPECT_EQ(machine.localService.tokens.size(), before + 1);
  EXPECT_EQ(title(8), "同步專案：app");
  expectNothingUnderWay();
  machine.clock.suspend(Seconds{44.5});
  refresh();
  EXPECT_EQ(machine.localService.tokens.size(), before + 1);
  machine.clock.suspend(Seconds{0.6});
  refresh();
  EXPECT_EQ(machine.localService.tokens.size(), before + 2);
  expectTicksGoOn();
}

TEST_P(ClockJump, WithNothingUnderWayMakesOneTick) {
  jump();
  machine.loop.settle();
  EXPECT_EQ(statusQueries(), 1U);
  expectTicksGoOn();
}

TEST_P(ClockJump, AtTheEndLeavesTheStopItsTime) {
  stopAnswers({.runtime = Seconds{5}, .whileRunning = jumpOnce()});
  controller->performAction("quit");
  newCalls();
  controller->applicationWillTerminate();
  const CallLog calls = newCalls();
  EXPECT_EQ(stops(), 1U);
  EXPECT_EQ(calls.back(), "launch /bin/bash") << "and no signal";
}

INSTANTIATE_TEST_SUITE_P(Of, ClockJump,
                         ::testing::Values(Jump{"AnHourAsleep", true, Seconds{3600}},
                                           Jump{"AYearAsleep", true, year}, Jump{"AYearAwake", false, year}),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace kestrune::testing
