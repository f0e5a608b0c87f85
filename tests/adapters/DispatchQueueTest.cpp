#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <numeric>
#include <thread>

#include "tests/adapters/Loops.h"

namespace kestrune::testing {
namespace {

/// What jobs wrote down, on whatever thread they ran.
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
  // What a job holds is shared with it, as it may outlive a test that failed.
  std::shared_ptr<Record> record = std::make_shared<Record>();
  Harness harness;

  /// Posts a job of which can be told whether it ran, and whether it is gone.
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

  /// Until it is opened, the queue runs nothing that is posted behind this.
  struct Gate {
    std::promise<void> opened;
    void open() { opened.set_value(); }
  };
  std::unique_ptr<Gate> holdUp(DispatchQueue& queue) {
    auto gate = std::make_unique<Gate>();
    // On the main thread nothing runs before the test lets it.
    if (Harness::ownThread) queue.async([opened = gate->opened.get_future().share()] { opened.wait(); });
    return gate;
  }
};

using Queues =
    ::testing::Types<VirtualMain, VirtualWorker, VirtualMonitor, RealMain, RealWorker, RealMonitor>;
TYPED_TEST_SUITE(DispatchQueueContract, Queues);

TYPED_TEST(DispatchQueueContract, RunsJobsInTheOrderInWhichTheyWerePosted) {
  std::vector<int> expected(100);
  std::iota(expected.begin(), expected.end(), 0);
  for (const int each : expected) {
    this->harness.queue().async([record = this->record, each] { record->add(each); });
  }
  this->harness.letPassUntil([&] { return this->record->size() == expected.size(); });
  EXPECT_EQ(this->record->all(), expected);
}

TYPED_TEST(DispatchQueueContract, LetsAJobThatHasRunPostAsItGoes) {
  DispatchQueue& queue = this->harness.queue();
  const auto gate = this->holdUp(queue);
  const auto postAndNote = [&queue, record = this->record](int*) {
    queue.async([record] { record->add(4); });
    record->add(2);
  };
  queue.async([held = std::shared_ptr<int>(nullptr, postAndNote), record = this->record] { record->add(1); });
  queue.async([record = this->record] { record->add(3); });
  gate->open();
  this->harness.letPassUntil([&] { return this->record->size() == 4; });
  EXPECT_EQ(this->record->all(), (std::vector{1, 2, 3, 4}));
}

TYPED_TEST(DispatchQueueContract, DropsWhatHasNotBegunWhenItIsClosed) {
  const auto gate = this->holdUp(this->harness.queue());
  const auto first = this->postWatched(this->harness.queue());
  const auto second = this->postWatched(this->harness.queue());
  this->harness.queue().close();
  gate->open();
  EXPECT_TRUE(this->goes(first));
  EXPECT_TRUE(this->goes(second));
  EXPECT_FALSE(*first.ran);
  EXPECT_FALSE(*second.ran);
}

TYPED_TEST(DispatchQueueContract, DropsWhatIsPostedAfterItWasClosedOnceOrTwice) {
  this->harness.queue().close();
  this->harness.queue().close();
  const auto watched = this->postWatched(this->harness.queue());
  EXPECT_TRUE(this->goes(watched));
  EXPECT_FALSE(*watched.ran);
}

TYPED_TEST(DispatchQueueContract, LetsADroppedJobPostAsItGoes) {
  DispatchQueue& queue = this->harness.queue();
  const auto gate = this->holdUp(queue);
  const auto postAndNote = [&queue, record = this->record](int*) {
    queue.async([record] { record->add(2); });
    record->add(1);
  };
  queue.async([held = std::shared_ptr<int>(nullptr, postAndNote)] {});
  queue.close();
  gate->open();
  this->harness.letPassUntil([&] { return this->record->size() > 0; });
  letPass(this->harness, Seconds{0.005});
  EXPECT_EQ(this->record->all(), std::vector{1});
}

template <typename Harness>
struct MainThreadQueueContract : DispatchQueueContract<Harness> {};

using MainThreadQueues = ::testing::Types<VirtualMain, VirtualMonitor, RealMain, RealMonitor>;
TYPED_TEST_SUITE(MainThreadQueueContract, MainThreadQueues);

TYPED_TEST(MainThreadQueueContract, RunsItsJobsOnTheMainThread) {
  this->harness.queue().async([record = this->record, main = std::this_thread::get_id()] {
    record->add(std::this_thread::get_id() == main);
  });
  EXPECT_EQ(this->record->size(), 0U) << "before the loop runs";
  this->harness.letPassUntil([&] { return this->record->size() == 1; });
  EXPECT_EQ(this->record->all(), std::vector{1});
}

TYPED_TEST(MainThreadQueueContract, DropsTheJobsBehindTheOneThatClosesIt) {
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

TYPED_TEST(SerialQueueContract, DropsWhatHasNotBegunWhenItIsDestroyed) {
  const auto gate = this->holdUp(this->harness.queue());
  const auto watched = this->postWatched(this->harness.queue());
  this->harness.owned.reset();
  gate->open();
  EXPECT_TRUE(this->goes(watched));
  EXPECT_FALSE(*watched.ran);
}

TYPED_TEST(SerialQueueContract, MayBeDestroyedByAJobOfItsOwn) {
  const auto last = std::make_shared<std::unique_ptr<DispatchQueue>>(std::move(this->harness.owned));
  DispatchQueue& queue = **last;
  queue.async([record = this->record, last] {
    last->reset();
    record->add(1);
  });
  this->harness.letPassUntil([&] { return this->record->size() == 1; });
  EXPECT_EQ(this->record->all(), std::vector{1});
}

TYPED_TEST(SerialQueueContract, IsLabelledAndIndependentOfItsSiblings) {
  const auto sibling =
      this->harness.loop.makeSerialQueue("another", QualityOfService::userInitiated, QueueTarget::ownThread);
  EXPECT_EQ(this->harness.queue().label(), "a queue");
  this->harness.queue().close();
  const auto watched = this->postWatched(*sibling);
  EXPECT_TRUE(this->goes(watched));
  EXPECT_TRUE(*watched.ran);
}

template <typename Harness>
struct ConcurrentQueueContract : DispatchQueueContract<Harness> {};

// The fakes have no threads.
using ConcurrentQueues = ::testing::Types<RealMain, RealWorker, RealMonitor>;
TYPED_TEST_SUITE(ConcurrentQueueContract, ConcurrentQueues);

TYPED_TEST(ConcurrentQueueContract, TakesJobsFromManyThreadsAndRunsThemOneAtATime) {
  static constexpr std::size_t posters = 4;
  static constexpr int jobsOfEach = 500;
  struct Tally {
    // Without a lock or an atomic: only jobs that overlap could harm it.
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

TYPED_TEST(ConcurrentQueueContract, MayBeClosedWhileOthersPost) {
  std::atomic<bool> closed = false;
  std::thread poster([&] {
    while (!closed) this->harness.queue().async([record = this->record] { record->add(1); });
  });
  EXPECT_TRUE(this->harness.letPassUntil([&] { return this->record->size() > 0; }));
  this->harness.queue().close();
  closed = true;
  poster.join();
  const auto after = this->postWatched(this->harness.queue());
  EXPECT_TRUE(this->goes(after));
  EXPECT_FALSE(*after.ran);
}

struct WorkerQueue : DispatchQueueContract<RealWorker> {};

TEST_F(WorkerQueue, RunsAllItsJobsOnOneThreadOfItsOwn) {
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

/// A job that is under way until the test lets it end, and tells of its end.
struct LongJob {
  std::promise<void> begun;
  std::promise<void> mayEnd;
  std::promise<bool> ended;

  static std::shared_ptr<LongJob> beginOn(DispatchQueue& queue) {
    auto job = std::make_shared<LongJob>();
    queue.async([job] {
      job->begun.set_value();
      const bool let = job->mayEnd.get_future().wait_for(patience) == std::future_status::ready;
      job->ended.set_value(let);
    });
    job->begun.get_future().wait();
    return job;
  }
  /// Whether the job waited for the test, and not the other way round.
  bool endsWhenLet() {
    mayEnd.set_value();
    return ended.get_future().get();
  }
};

TEST_F(WorkerQueue, DoesNotWaitForTheJobUnderWayWhenItIsClosedOrDestroyed) {
  const auto job = LongJob::beginOn(harness.queue());
  harness.queue().close();
  harness.owned.reset();
  EXPECT_TRUE(job->endsWhenLet());
}

TEST_F(WorkerQueue, DoesNotKeepOtherQueuesWaiting) {
  const auto job = LongJob::beginOn(harness.queue());
  const auto other =
      harness.loop.makeSerialQueue("another", QualityOfService::userInitiated, QueueTarget::ownThread);
  const auto watched = postWatched(*other);
  EXPECT_TRUE(goes(watched));
  EXPECT_TRUE(*watched.ran);
  EXPECT_TRUE(job->endsWhenLet());
}

}  // namespace
}  // namespace kestrune::testing
