#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "tests/adapters/Loops.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/Namespaces.h"

namespace kestrune::testing {
namespace {

constexpr Seconds interval{0.005};
constexpr Seconds fewIntervals = 4 * interval;
constexpr Seconds rounding{0.00001};

template <typename Loop>
struct TimerContract : ::testing::Test {
  Loop loop;
  std::vector<Seconds> ticks;
  std::unique_ptr<Timer> timer;

  Seconds now() const { return loop.clock.continuousTime(); }

  void schedule(std::function<void()> action = [] {}) {
    timer = loop.loop.scheduleRepeating(interval, [this, action = std::move(action)] {
      ticks.push_back(now());
      action();
    });
  }
  void letTick(std::size_t count) {
    EXPECT_TRUE(loop.letPassUntil([&] { return ticks.size() >= count; }));
  }
  /// Waits until `moment` is set (not 0) and two ticks have come after it. Returns the time from `moment` to
  /// the second tick.
  Seconds secondTickAfter(const Seconds& moment) {
    std::vector<Seconds> since;
    EXPECT_TRUE(loop.letPassUntil([&] {
      since.clear();
      std::copy_if(ticks.begin(), ticks.end(), std::back_inserter(since),
                   [&moment](Seconds tick) { return moment > Seconds{0} && tick >= moment; });
      return since.size() >= 2;
    }));
    return since.at(1) - moment;
  }
};

TYPED_TEST_SUITE(TimerContract, Loops);

TYPED_TEST(TimerContract, FirstIntervalCountsFromTheCall) {
  Seconds begin{};
  this->loop.loop.mainQueue().async([&] {
    this->loop.keepBusy(fewIntervals);
    begin = this->now();
    this->schedule();
  });
  this->letTick(1);
  EXPECT_GE(this->ticks.at(0) - begin, interval - rounding);
}

TYPED_TEST(TimerContract, Repeats) {
  const Seconds begin = this->now();
  this->schedule();
  EXPECT_TRUE(this->ticks.empty());
  this->letTick(5);
  EXPECT_GE(this->ticks.at(0) - begin, interval - rounding);
  EXPECT_GE(this->ticks.at(4) - begin, 5 * interval - rounding);
}

TYPED_TEST(TimerContract, InvalidatedTimerDoesNotTickThoughItWasDue) {
  this->schedule();
  this->loop.loop.mainQueue().async([&] {
    this->loop.keepBusy(2 * interval);
    this->timer->invalidate();
    this->timer->invalidate();
  });
  letPass(this->loop, fewIntervals);
  EXPECT_TRUE(this->ticks.empty());
}

TYPED_TEST(TimerContract, ActionMayDestroyItsTimer) {
  // The action destroys its timer. What the action has captured must live until the action returns.
  this->schedule([this, text = std::make_shared<std::string>("still there")] {
    this->timer.reset();
    EXPECT_EQ(*text, "still there");
  });
  this->letTick(1);
  letPass(this->loop, fewIntervals);
  EXPECT_EQ(this->ticks.size(), 1U);
}

TYPED_TEST(TimerContract, DestroyedTimerReleasesItsAction) {
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = held;
  this->schedule([held] {});
  held.reset();
  EXPECT_FALSE(watched.expired());
  this->timer.reset();
  EXPECT_TRUE(watched.expired());
  letPass(this->loop, fewIntervals);
  EXPECT_TRUE(this->ticks.empty());
}

TYPED_TEST(TimerContract, MissedTicksBecomeOne) {
  Seconds end{0};
  this->schedule();
  this->loop.loop.mainQueue().async([&] {
    this->loop.keepBusy(fewIntervals + interval / 2);
    end = this->now();
  });
  EXPECT_GE(this->secondTickAfter(end), interval / 2);
}

TYPED_TEST(TimerContract, ActionMayDestroyAnotherDueTimer) {
  std::unique_ptr<Timer> first;
  std::unique_ptr<Timer> second;
  int count = 0;
  const auto action = [&] {
    ++count;
    first.reset();
    second.reset();
  };
  first = this->loop.loop.scheduleRepeating(interval, action);
  second = this->loop.loop.scheduleRepeating(interval, action);
  this->loop.loop.mainQueue().async([&] { this->loop.keepBusy(2 * interval); });
  EXPECT_TRUE(this->loop.letPassUntil([&] { return count > 0; }));
  letPass(this->loop, fewIntervals);
  EXPECT_EQ(count, 1);
}

template <typename ClockUnderTest>
struct ClockContract : ::testing::Test {
  ClockUnderTest clock;
};

using Clocks = ::testing::Types<VirtualClock, SystemClock>;
TYPED_TEST_SUITE(ClockContract, Clocks);

TYPED_TEST(ClockContract, SleepsAtLeastAsLongAsAsked) {
  const Seconds awake = this->clock.awakeTime();
  const Seconds continuous = this->clock.continuousTime();
  this->clock.sleep(Seconds{0.002});
  EXPECT_GE(this->clock.awakeTime() - awake, Seconds{0.00199});
  EXPECT_GE(this->clock.continuousTime() - continuous, Seconds{0.00199});
  const Seconds before = this->clock.awakeTime();
  this->clock.sleep(Seconds{0});
  this->clock.sleep(Seconds{-5});
  EXPECT_GE(this->clock.awakeTime(), before);
}

TEST(TheSystemClock, DoesNotFollowTheCalendar) {
  const SystemClock clock;
  const Seconds sinceStart = std::chrono::steady_clock::now().time_since_epoch();
  EXPECT_NEAR(clock.awakeTime().count(), sinceStart.count(), 5);
  EXPECT_NEAR(clock.continuousTime().count(), std::stod(contentsOf("/proc/uptime")), 5);
}

TEST(LoopTimer, WaitsAWholeIntervalSoonAfterBoot) {
  EventLoop loop;
  const auto timer = loop.scheduleRepeating(Seconds{60}, [] {});
  settleQueue(loop);
  for (const auto& each : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    const std::string text = contentsOf(each.path());
    if (text.find("clockid: 7\n") == std::string::npos) continue;  // a timerfd of CLOCK_BOOTTIME
    EXPECT_GE(std::stod(text.substr(text.find("it_value: (") + 11)), 59);
    return;
  }
  FAIL() << "no timerfd";
}

/// Runs tests of this program in a time namespace whose CLOCK_BOOTTIME differs by `offset` seconds.
void expectTestsPassWithBoottime(long offset, const std::string& tests) {
  std::vector<std::string> words{"unshare"};
  if (needsUserNamespace()) words.insert(words.end(), {"--user", "--map-root-user"});
  words.insert(words.end(),
               {"--time", "--boottime", std::to_string(offset), "--fork", "--kill-child", "--", "sh", "-c",
                R"(cat /proc/uptime && exec "$0" "$@" 2>&1)", std::filesystem::read_symlink("/proc/self/exe"),
                "--gtest_brief=1", "--gtest_filter=" + tests});
  const double uptime = std::stod(contentsOf("/proc/uptime"));
  RealProgram program(words);
  EXPECT_NEAR(std::stod(program.firstLine()), uptime + static_cast<double>(offset), 5);
  EXPECT_TRUE(program.endsWithin(Seconds{45})) << "it hangs: " << program.output();
  EXPECT_TRUE(program.says("[  PASSED  ] ")) << program.output() << program.errors();
  EXPECT_FALSE(program.says("FAILED")) << program.output();
}

/// On a machine that was never suspended, CLOCK_MONOTONIC and CLOCK_BOOTTIME are equal, so no test notices
/// when the code reads the wrong one. Therefore the tests of timers and queues run again in a time namespace
/// where CLOCK_BOOTTIME is a year ahead.
TEST(FarClocks, MonotonicAndBoottimeAreNotMixedUp) {
  requireNamespaces("--time --boottime 1 --fork");
  expectTestsPassWithBoottime(
      365 * 24 * 3600,
      "ClockContract*:TheSystemClock*:TimerContract*:*MainQueue*:*QueueContract*:EventLoopAlone*:RealShell."
      "Stops*");
}

TEST(FarClocks, TimersWaitAWholeIntervalSoonAfterBoot) {
  requireNamespaces("--time --boottime 1 --fork");
  expectTestsPassWithBoottime(1 - std::stol(contentsOf("/proc/uptime")), "LoopTimer.*");
}

}  // namespace
}  // namespace kestrune::testing
