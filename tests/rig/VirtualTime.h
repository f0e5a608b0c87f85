#pragma once

#include <deque>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "ports/Clock.h"
#include "ports/Loop.h"

namespace kestrune::testing {

/// The calls that the fakes have received, in order.
using CallLog = std::vector<std::string>;

/// A clock that advances only when `sleep` or `suspend` is called.
class VirtualClock final : public Clock {
 public:
  Seconds awakeTime() const override { return awake; }
  Seconds continuousTime() const override { return awake + asleep; }
  std::int64_t calendarTime() const override {
    return calendarStart + static_cast<std::int64_t>((awake + asleep).count());
  }
  void sleep(Seconds duration) override {
    if (duration.count() > 0) awake += duration;
  }

  /// Pretends that the machine was suspended for `duration`. All times but the awake time advance.
  void suspend(Seconds duration) { asleep += duration; }

  /// The calendar time at which continuousTime() is 0, in seconds since 1970.
  std::int64_t calendarStart = 1'768'475'000;

 private:
  Seconds awake{1000};
  Seconds asleep{0};
};

/// A fake main loop with queues and timers, without threads. Jobs and timers run only while a test calls
/// `run` or a function such as `settle` or `advance`.
class FakeLoop final : public Application, public Dispatch {
 public:
  FakeLoop(VirtualClock& clock, CallLog& log);
  ~FakeLoop() override;

  // from the port Application
  void setActivationPolicy(ActivationPolicy policy) override;
  int run(ApplicationDelegate& delegate) override;
  void terminate() override;

  // from the port Dispatch
  MainQueue& mainQueue() override;
  std::unique_ptr<DispatchQueue> makeSerialQueue(std::string label, QualityOfService qualityOfService,
                                                 QueueTarget target) override;
  std::unique_ptr<Timer> scheduleRepeating(Seconds interval, std::function<void()> action) override;

  // Only tests call the functions below:

  /// Runs jobs of the main queue until the queue is empty.
  void runMain();
  /// Runs the jobs of the main queue, and the timers and delayed jobs that are due. Runs no job of a worker
  /// queue, because tests call this function from inside a job of a worker queue.
  void serveMain();
  /// Runs one job of a worker queue. Returns false if there is no job.
  bool runOneWorkerJob();
  /// Runs all jobs of all queues, and the timers and delayed jobs that are due.
  void settle();
  /// Advances the clock by `duration`, and runs everything that becomes due on the way.
  void advance(Seconds duration);

  /// What the loop can run in one step: a job of the main queue, a delayed job, the action of a timer, or a
  /// job of a worker queue.
  enum class Step { main, delayed, tick, worker };
  std::function<void(Step)> whenStepIsDone;

  bool isTerminated() const { return terminated; }
  std::size_t mainJobs() const { return main.size(); }
  std::size_t delayedJobs() const { return delayed.size(); }
  std::size_t workerJobs() const { return worker.size(); }
  std::size_t liveTimers() const { return timers.size(); }
  struct MadeQueue {
    std::string label;
    QualityOfService qualityOfService;
    QueueTarget target;
  };
  std::vector<MadeQueue> madeQueues;

 private:
  class QueueFake;
  class TimerFake;
  struct Delayed {
    Seconds due;
    Job job;
  };
  struct Tick {
    TimerFake* timer;
    Seconds interval;
    Seconds due;
    std::function<void()> action;
  };

  bool fireDue();
  void run(Step step, const Job& job);

  VirtualClock& clock;
  CallLog& log;
  std::unique_ptr<QueueFake> queue;
  std::deque<Job> main;
  std::deque<Job> worker;
  std::list<Delayed> delayed;
  std::list<Tick> timers;
  bool terminated = false;
};

}  // namespace kestrune::testing
