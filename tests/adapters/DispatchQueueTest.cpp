#include <atomic>
#include <future>
#include <mutex>
#include <numeric>
#include <thread>

#include "tests/adapters/Loops.h"

namespace kestrune::testing {
namespace {

/// A list of numbers, to which jobs append. May be used on any thread.
class Record {
 public:
  void add(int entry) {
    const std::lock_guard lock(mutex);
    entries.push_back(entry);
  }
  std::vector<int> all() const {
    const std::lock_guard lock(mutex);
    return entries;
  }
  std::size_t size() const { return all().size(); }

 private:
  mutable std::mutex mutex;
  std::vector<int> entries;
};

template <typename Loop>
struct MainQueueOf : Loop {
  static constexpr bool ownThread = false;
  DispatchQueue& queue() { return this->loop.mainQueue(); }
};

template <typename Loop, QueueTarget target>
struct SerialQueueOf : Loop {
  static constexpr bool ownThread = std::is_same_v<Loop, RealLoop> && target == QueueTarget::ownThread;
  std::unique_ptr<DispatchQueue> owned =
      this->loop.makeSerialQueue("a queue", QualityOfService::standard, target);
  DispatchQueue& queue() { return *owned; }
};

using VirtualMain = MainQueueOf<VirtualLoop>;
using VirtualWorker = SerialQueueOf<VirtualLoop, QueueTarget::ownThread>;
using VirtualMonitor = SerialQueueOf<VirtualLoop, QueueTarget::mainThread>;
using RealMain = MainQueueOf<RealLoop>;
using RealWorker = SerialQueueOf<RealLoop, QueueTarget::ownThread>;
using RealMonitor = SerialQueueOf<RealLoop, QueueTarget::mainThread>;

template <typename Harness>
struct DispatchQueueContract : ::testing::Test {
  // Each job holds a copy of this shared_ptr: when a test fails, a job may outlive the fixture.
  std::shared_ptr<Record> record = std::make_shared<Record>();
  Harness harness;

  /// State of a job posted by postWatched: the job sets `ran`, and `held` expires when the job is destroyed.
  struct Watched {
    std::shared_ptr<std::atomic<bool>> ran = std::make_shared<std::atomic<bool>>(false);
    std::weak_ptr<int> held;
  };
  Watched postWatched(DispatchQueue& queue) {
    Watched watched;
    const auto held = std::make_shared<int>(0);
    watched.held = held;
    queue.async([ran = watched.ran, held] { *ran = true; });
    return watched;
  }
  bool goes(const Watched& watched) {
    return harness.letPassUntil([&] { return watched.held.expired(); });
  }

  /// Blocks the queue's own thread until the test sets the returned promise.
  std::unique_ptr<std::promise<void>> holdUp(DispatchQueue& queue) {
    auto gate = std::make_unique<std::promise<void>>();
    // A queue on the main thread needs no blocking: its jobs run only when the test runs the loop.
    if (Harness::ownThread) queue.async([opened = gate->get_future().share()] { opened.wait(); });
    return gate;
  }
};

using Queues =
    ::testing::Types<VirtualMain, VirtualWorker, VirtualMonitor, RealMain, RealWorker, RealMonitor>;
TYPED_TEST_SUITE(DispatchQueueContract, Queues);

TYPED_TEST(DispatchQueueContract, JobsRunInTheOrderOfPosting) {
  std::vector<int> expected(100);
  std::iota(expected.begin(), expected.end(), 0);
  for (const int each : expected) {
    this->harness.queue().async([record = this->record, each] { record->add(each); });
  }
  this->harness.letPassUntil([&] { return this->record->size() == expected.size(); });
  EXPECT_EQ(this->record->all(), expected);
}

TYPED_TEST(DispatchQueueContract, DestructorOfAJobThatRanMayPost) {
  DispatchQueue& queue = this->harness.queue();
  const auto gate = this->holdUp(queue);
  const auto postAndNote = [&queue, record = this->record](int*) {
    queue.async([record] { record->add(4); });
    record->add(2);
  };
  queue.async([held = std::shared_ptr<int>(nullptr, postAndNote), record = this->record] { record->add(1); });
  queue.async([record = this->record] { record->add(3); });
  gate->set_value();
  this->harness.letPassUntil([&] { return this->record->size() == 4; });
  EXPECT_EQ(this->record->all(), (std::vector{1, 2, 3, 4}));
}

TYPED_TEST(DispatchQueueContract, CloseDropsWaitingJobs) {
  const auto gate = this->holdUp(this->harness.queue());
  const auto first = this->postWatched(this->harness.queue());
  const auto second = this->postWatched(this->harness.queue());
  this->harness.queue().close();
  gate->set_value();
  EXPECT_TRUE(this->goes(first));
  EXPECT_TRUE(this->goes(second));
  EXPECT_FALSE(*first.ran);
  EXPECT_FALSE(*second.ran);
}

TYPED_TEST(DispatchQueueContract, JobsPostedAfterCloseAreDropped) {
  this->harness.queue().close();
  this->harness.queue().close();
  const auto watched = this->postWatched(this->harness.queue());
  EXPECT_TRUE(this->goes(watched));
  EXPECT_FALSE(*watched.ran);
}

TYPED_TEST(DispatchQueueContract, DestructorOfADroppedJobMayPost) {
  DispatchQueue& queue = this->harness.queue();
  const auto gate = this->holdUp(queue);
  const auto postAndNote = [&queue, record = this->record](int*) {
    queue.async([record] { record->add(2); });
    record->add(1);
  };
  queue.async([held = std::shared_ptr<int>(nullptr, postAndNote)] {});
  queue.close();
  gate->set_value();
  this->harness.letPassUntil([&] { return this->record->size() > 0; });
  letPass(this->harness, Seconds{0.005});
  EXPECT_EQ(this->record->all(), std::vector{1});
}

template <typename Harness>
struct MainThreadQueueContract : DispatchQueueContract<Harness> {};

using MainThreadQueues = ::testing::Types<VirtualMain, VirtualMonitor, RealMain>;
TYPED_TEST_SUITE(MainThreadQueueContract, MainThreadQueues);

TYPED_TEST(MainThreadQueueContract, JobsRunOnTheMainThread) {
  this->harness.queue().async([record = this->record, main = std::this_thread::get_id()] {
    record->add(std::this_thread::get_id() == main);
  });
  EXPECT_EQ(this->record->size(), 0U) << "before the loop runs";
  this->harness.letPassUntil([&] { return this->record->size() == 1; });
  EXPECT_EQ(this->record->all(), std::vector{1});
}

TYPED_TEST(MainThreadQueueContract, JobThatClosesTheQueueIsTheLast) {
  DispatchQueue& queue = this->harness.queue();
  queue.async([record = this->record, &queue] {
    queue.close();
    record->add(1);
  });
  const auto behind = this->postWatched(queue);
  EXPECT_TRUE(this->goes(behind));
  EXPECT_EQ(this->record->all(), std::vector{1});
  EXPECT_FALSE(*behind.ran);
}

template <typename Harness>
struct SerialQueueContract : DispatchQueueContract<Harness> {};

using SerialQueues = ::testing::Types<VirtualWorker, VirtualMonitor, RealWorker, RealMonitor>;
TYPED_TEST_SUITE(SerialQueueContract, SerialQueues);

TYPED_TEST(SerialQueueContract, DestructorDropsWaitingJobs) {
  const auto gate = this->holdUp(this->harness.queue());
  const auto watched = this->postWatched(this->harness.queue());
  this->harness.owned.reset();
  gate->set_value();
  EXPECT_TRUE(this->goes(watched));
  EXPECT_FALSE(*watched.ran);
}

TYPED_TEST(SerialQueueContract, QueuesAreIndependent) {
  const auto sibling =
      this->harness.loop.makeSerialQueue("another", QualityOfService::userInitiated, QueueTarget::ownThread);
  this->harness.queue().close();
  const auto watched = this->postWatched(*sibling);
  EXPECT_TRUE(this->goes(watched));
  EXPECT_TRUE(*watched.ran);
}

template <typename Harness>
struct ConcurrentQueueContract : DispatchQueueContract<Harness> {};

// These tests post jobs from several threads, which the fake queues do not support. RealMonitor is left out,
// because its queue is of the same class as the queue of RealMain.
using ConcurrentQueues = ::testing::Types<RealMain, RealWorker>;
TYPED_TEST_SUITE(ConcurrentQueueContract, ConcurrentQueues);

TYPED_TEST(ConcurrentQueueContract, JobsOfManyThreadsRunOneAtATime) {
  static constexpr std::size_t posters = 4;
  static constexpr int jobsOfEach = 500;
  struct Tally {
    // No lock is needed: the jobs run one at a time. The thread sanitizer would report overlapping jobs.
    std::array<std::vector<int>, posters> entries;
    std::size_t count = 0;
  };
  const auto tally = std::make_shared<Tally>();
  const auto done = std::make_shared<std::atomic<bool>>(false);
  std::vector<std::thread> threads;
  for (std::size_t poster = 0; poster < posters; ++poster) {
    threads.emplace_back([&, poster] {
      for (int i = 0; i < jobsOfEach; ++i) {
        this->harness.queue().async([tally, done, poster, i] {
          tally->entries[poster].push_back(i);
          if (++tally->count == posters * jobsOfEach) *done = true;
        });
      }
    });
  }
  EXPECT_TRUE(this->harness.letPassUntil([&] { return done->load(); }));
  for (auto& each : threads) each.join();
  std::vector<int> expected(jobsOfEach);
  std::iota(expected.begin(), expected.end(), 0);
  for (const auto& each : tally->entries) EXPECT_EQ(each, expected);
}

TYPED_TEST(ConcurrentQueueContract, CloseIsSafeWhileAnotherThreadPosts) {
  std::atomic<bool> closed = false;
  std::thread poster([&] {
    while (!closed) this->harness.queue().async([record = this->record] { record->add(1); });
  });
  EXPECT_TRUE(this->harness.letPassUntil([&] { return this->record->size() > 0; }));
  this->harness.queue().close();
  closed = true;
  poster.join();
}

struct WorkerQueue : DispatchQueueContract<RealWorker> {};

TEST_F(WorkerQueue, AllJobsRunOnOneOtherThread) {
  auto threads = std::make_shared<std::vector<std::thread::id>>();
  for (int i = 0; i < 3; ++i) {
    harness.queue().async([threads, record = record] {
      threads->push_back(std::this_thread::get_id());
      record->add(1);
    });
  }
  ASSERT_TRUE(harness.letPassUntil([&] { return record->size() == 3; }));
  EXPECT_NE(threads->at(0), std::this_thread::get_id());
  EXPECT_EQ(threads->at(1), threads->at(0));
  EXPECT_EQ(threads->at(2), threads->at(0));
}

TEST_F(WorkerQueue, JobMayDestroyItsQueue) {
  harness.queue().async([this, record = record] {
    harness.owned.reset();
    record->add(1);
  });
  EXPECT_TRUE(harness.letPassUntil([&] { return record->size() == 1; }));
}

TEST_F(WorkerQueue, CloseAndDestructorDoNotWaitForARunningJob) {
  struct Job {
    std::promise<void> begun, mayEnd;
    std::promise<bool> isInTime;
  };
  const auto job = std::make_shared<Job>();
  harness.queue().async([job] {
    job->begun.set_value();
    job->isInTime.set_value(job->mayEnd.get_future().wait_for(patience) == std::future_status::ready);
  });
  job->begun.get_future().wait();
  harness.queue().close();
  harness.owned.reset();
  job->mayEnd.set_value();
  EXPECT_TRUE(job->isInTime.get_future().get()) << "a call has waited for the job";
}

template <typename Loop>
struct MainQueueContract : ::testing::Test {
  Loop loop;
  std::vector<int> ran;

  MainQueue& queue() { return loop.loop.mainQueue(); }

  void post(Seconds delay, int entry) {
    queue().asyncAfter(delay, [this, entry] { ran.push_back(entry); });
  }
  void letRun(std::size_t count) {
    loop.letPassUntil([&] { return ran.size() >= count; });
  }
};

TYPED_TEST_SUITE(MainQueueContract, Loops);

TYPED_TEST(MainQueueContract, DelayCountsFromTheCall) {
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

TYPED_TEST(MainQueueContract, DelayedJobsRunInTheOrderOfTheirDueTimes) {
  // A slow machine may pause between these calls. With a delay of 0.5 s, job 3 is still due last.
  this->post(Seconds{0.5}, 3);
  this->post(Seconds{0.005}, 1);
  this->post(Seconds{0.010}, 2);
  this->queue().async([&] { this->loop.keepBusy(Seconds{0.02}); });
  this->letRun(3);
  EXPECT_EQ(this->ran, (std::vector{1, 2, 3}));
}

TYPED_TEST(MainQueueContract, JobsOfEqualDelayRunInTheOrderOfPosting) {
  std::vector<int> expected(20);
  std::iota(expected.begin(), expected.end(), 1);
  for (const int each : expected) this->post(Seconds{0.005}, each);
  this->letRun(expected.size());
  EXPECT_EQ(this->ran, expected);
}

TYPED_TEST(MainQueueContract, JobWithoutDelayRunsAfterTheCallReturns) {
  this->queue().async([&] {
    this->post(Seconds{0}, 2);
    this->post(Seconds{-1}, 2);
    this->ran.push_back(1);
  });
  this->letRun(3);
  EXPECT_EQ(this->ran, (std::vector{1, 2, 2}));
}

}  // namespace
}  // namespace kestrune::testing
