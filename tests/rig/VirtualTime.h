#pragma once

#include <deque>
#include <functional>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "ports/Application.h"
#include "ports/Clock.h"
#include "ports/DispatchQueue.h"
#include "ports/Timer.h"

namespace kestrune::testing {

/// The calls of the fakes, in order.
using CallLog = std::vector<std::string>;

/// A clock that advances only when a test advances it, or when `sleep` is called.
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

  /// Suspends the machine for `duration`.
  void suspend(Seconds duration) { asleep += duration; }

  /// The calendar time at 0 of the other clocks.
  std::int64_t calendarStart = 1'768'475'000;

 private:
  Seconds awake{1000};
  Seconds asleep{0};
};

/// The main loop with its queues and timers, without threads. Jobs run only when a test calls an operation.
class FakeLoop final : public Application, public Dispatch, public Timers {
 public:
  FakeLoop(VirtualClock& clock, CallLog& log);
  ~FakeLoop() override;

  // Application
  void setActivationPolicy(ActivationPolicy policy) override;
  int run(ApplicationDelegate& delegate) override;
  void terminate() override;

  // Dispatch
  MainQueue& mainQueue() override;
  std::unique_ptr<DispatchQueue> makeSerialQueue(std::string label, QualityOfService qualityOfService,
                                                 QueueTarget target) override;

  // Timers
  std::unique_ptr<Timer> scheduleRepeating(Seconds interval, std::function<void()> action) override;

  // For tests

  /// Runs the jobs of the main queue.
  void runMain();
  /// Runs the main queue, due timers and due delayed jobs: all that the main thread does while a worker is
  /// busy.
  void serveMain();
  /// Runs one job of a worker queue; false when there is none.
  bool runOneWorkerJob();
  /// Runs all jobs and timers that are due.
  void settle();
  /// Advances the clock by `duration`, and runs all that becomes due on the way.
  void advance(Seconds duration);
  /// Suspends the machine for `duration`, then runs all that is due.
  void suspend(Seconds duration);

  /// A job of the main queue, a delayed job, a tick of a timer, a job of a worker queue.
  enum class Step { main, delayed, tick, worker };
  /// Called after each step.
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
  class LoopQueue;
  class SerialFake;
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
  std::unique_ptr<LoopQueue> queue;
  std::deque<Job> main;
  std::deque<Job> worker;
  std::list<Delayed> delayed;
  std::list<Tick> timers;
  bool mainClosed = false;
  bool terminated = false;
};

}  // namespace kestrune::testing
