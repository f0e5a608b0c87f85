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

/// What the fakes were asked, in order, in words.
using CallLog = std::vector<std::string>;

/// A clock that stands still until a test, or someone who sleeps on it, moves it.
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

  /// The machine sleeps for `duration`.
  void suspend(Seconds duration) { asleep += duration; }

  /// What the calendar shows when the other clocks show 0.
  std::int64_t calendarStart = 1'768'475'000;

 private:
  Seconds awake{1000};
  Seconds asleep{0};
};

/// The main loop with its queues and timers, without threads: nothing runs until a test says so.
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

  /// Runs the jobs of the main thread until there are none that are due.
  void runMain();
  /// As that, with its timers and what was to run later: what happens on the main thread while a worker is
  /// busy.
  void serveMain();
  /// Runs one job of the queues with a thread of their own; false when there is none.
  bool runOneWorkerJob();
  /// Runs all jobs of all queues until there are none that are due.
  void settle();
  /// Lets `duration` pass, running what is due at each moment.
  void advance(Seconds duration);
  /// The machine sleeps for `duration` and wakes; what is due then runs.
  void suspend(Seconds duration);

  /// What runs: a job of the main queue, one that was to run later, a tick of a timer, a job of a worker.
  enum class Step { main, delayed, tick, worker };
  /// Called after each of them.
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
