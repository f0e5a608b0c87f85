#include <gtest/gtest.h>

#include <numeric>
#include <set>
#include <thread>

#include "tests/adapters/Loops.h"

namespace kestrune::testing {
namespace {

template <typename Loop>
struct MainQueueContract : ::testing::Test {
  Loop loop;
  std::vector<int> ran;  // outlived by no job: all run, or are dropped, on this thread

  MainQueue& queue() { return loop.loop.mainQueue(); }

  void post(Seconds delay, int entry) {
    queue().asyncAfter(delay, [this, entry] { ran.push_back(entry); });
  }
  void letRun(std::size_t count) {
    loop.letPassUntil([&] { return ran.size() >= count; });
  }
};

using Loops = ::testing::Types<VirtualLoop, RealLoop>;
TYPED_TEST_SUITE(MainQueueContract, Loops);

TYPED_TEST(MainQueueContract, RunsNoDelayedJobWithOneThatIsDueBefore) {
  const Seconds begin = this->loop.clock.awakeTime();
  this->post(Seconds{0.005}, 1);
  this->post(Seconds{0.02}, 2);
  this->letRun(2);
  EXPECT_EQ(this->ran, (std::vector{1, 2}));
  EXPECT_GE(this->loop.clock.awakeTime() - begin, Seconds{0.01999});
}

TYPED_TEST(MainQueueContract, CountsTheDelayFromTheCallHoweverLongTheLoopWasBusy) {
  Seconds posted{};
  Seconds run{};
  this->queue().async([&] {
    this->loop.keepBusy(Seconds{0.02});
    posted = this->loop.clock.awakeTime();
    this->queue().asyncAfter(Seconds{0.01}, [&] { run = this->loop.clock.awakeTime(); });
  });
  this->loop.letPassUntil([&] { return run > Seconds{0}; });
  EXPECT_GE(run - posted, Seconds{0.00999});
}

TYPED_TEST(MainQueueContract, RunsDelayedJobsWhenTheyAreDueAndNotAsTheyWerePosted) {
  // Far enough apart that no pause between the calls changes their order.
  this->post(Seconds{0.5}, 3);
  this->post(Seconds{0.005}, 1);
  this->post(Seconds{0.010}, 2);
  this->queue().async([&] { this->loop.keepBusy(Seconds{0.02}); });
  this->letRun(3);
  EXPECT_EQ(this->ran, (std::vector{1, 2, 3}));
}

TYPED_TEST(MainQueueContract, RunsJobsOfTheSameDelayInTheOrderInWhichTheyWerePosted) {
  std::vector<int> expected(20);
  std::iota(expected.begin(), expected.end(), 1);
  for (const int each : expected) this->post(Seconds{0.005}, each);
  this->letRun(expected.size());
  EXPECT_EQ(this->ran, expected);
}

TYPED_TEST(MainQueueContract, RunsNoDelayedJobBeforeTheCallReturnsWhateverTheDelay) {
  this->queue().async([&] {
    this->post(Seconds{0}, 2);
    this->post(Seconds{-1}, 2);
    this->ran.push_back(1);
  });
  this->letRun(3);
  EXPECT_EQ(this->ran, (std::vector{1, 2, 2}));
}

TYPED_TEST(MainQueueContract, LetsADelayedJobThatHasRunPostAsItGoes) {
  const auto post = [this](int*) { this->queue().async([this] { this->ran.push_back(3); }); };
  this->queue().asyncAfter(Seconds{0.001},
                           [this, held = std::shared_ptr<int>(nullptr, post)] { this->ran.push_back(1); });
  this->post(Seconds{0.002}, 2);
  this->queue().async([&] { this->loop.keepBusy(Seconds{0.005}); });
  this->letRun(3);
  EXPECT_EQ(std::set(this->ran.begin(), this->ran.end()), (std::set{1, 2, 3}));
}

TYPED_TEST(MainQueueContract, DropsItsDelayedJobsWhenItIsClosed) {
  constexpr Seconds delay{0.5};  // not over before the queue is closed, however slow the machine
  this->post(delay, 1);
  letPass(this->loop, Seconds{0.001});
  this->queue().close();
  letPass(this->loop, delay + Seconds{0.01});
  EXPECT_TRUE(this->ran.empty());
}

TYPED_TEST(MainQueueContract, MayBeClosedByADelayedJob) {
  this->queue().asyncAfter(Seconds{0.001}, [&] {
    this->queue().close();
    this->ran.push_back(1);
  });
  this->post(Seconds{0.003}, 2);
  this->letRun(1);
  this->post(Seconds{0.001}, 3);
  letPass(this->loop, Seconds{0.005});
  EXPECT_EQ(this->ran, std::vector{1});
}

TEST(VirtualMainQueue, DoesNotCountTimeAsleep) {
  VirtualLoop machine;
  bool ran = false;
  machine.loop.mainQueue().asyncAfter(Seconds{1.2}, [&] { ran = true; });
  machine.loop.suspend(Seconds{3600});
  EXPECT_FALSE(ran);
  machine.loop.advance(Seconds{1.2});
  EXPECT_TRUE(ran);
}

TEST(RealMainQueue, TakesDelayedJobsFromManyThreads) {
  RealLoop machine;
  constexpr std::size_t posters = 4;
  constexpr std::size_t jobsOfEach = 50;
  std::size_t count = 0;
  std::vector<std::thread> threads;
  for (std::size_t poster = 0; poster < posters; ++poster) {
    threads.emplace_back([&] {
      for (std::size_t i = 0; i < jobsOfEach; ++i) {
        machine.loop.mainQueue().asyncAfter(Seconds{0.001}, [&] { ++count; });
      }
    });
  }
  EXPECT_TRUE(machine.letPassUntil([&] { return count == posters * jobsOfEach; }));
  for (auto& each : threads) each.join();
}

}  // namespace
}  // namespace kestrune::testing
