#include <functional>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

constexpr Seconds year{365 * 24 * 3600.0};

/// A jump of the clocks. If `asleep`, the machine is suspended: the continuous clock advances, the awake
/// clock stands still. Otherwise the process is stopped (SIGSTOP), and both clocks advance.
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

  /// Returns a function. Its first call makes the clocks jump, and runs `serveMain`. Later calls do nothing.
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

  /// Advances the clocks by a minute. Expects a status query every 20 seconds.
  void expectTicksGoOn() {
    const auto before = statusQueries();
    machine.loop.advance(Seconds{60.1});
    EXPECT_EQ(statusQueries(), before + 3);
    expectNothingUnderWay();
    EXPECT_EQ(statusRow(), connectedRow);
  }
};

TEST_P(ClockJump, DuringAHangingRefreshCountsOnlyAwakeTime) {
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

TEST_P(ClockJump, DuringTheSettlingTimeRefreshesOnce) {
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

INSTANTIATE_TEST_SUITE_P(Of, ClockJump,
                         ::testing::Values(Jump{"AnHourAsleep", true, Seconds{3600}},
                                           Jump{"AYearAsleep", true, year}, Jump{"AYearAwake", false, year}),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace kestrune::testing
