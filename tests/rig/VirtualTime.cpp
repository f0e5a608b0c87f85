#include "tests/rig/VirtualTime.h"

#include <algorithm>

namespace kestrune::testing {

class FakeLoop::QueueFake final : public MainQueue {
 public:
  QueueFake(FakeLoop& givenLoop, std::string label, std::deque<Job>& givenJobs)
      : loop(givenLoop), name(std::move(label)), jobs(givenJobs) {}
  ~QueueFake() override { *open = false; }
  void async(Job job) override {
    if (*open) jobs.push_back(unlessClosed(std::move(job)));
  }
  void asyncAfter(Seconds delay, Job job) override {
    if (*open) loop.delayed.push_back({loop.clock.awakeTime() + delay, unlessClosed(std::move(job))});
  }
  void close() override {
    *open = false;
    loop.log.push_back("close " + name);
  }

 private:
  Job unlessClosed(Job job) const {
    return [stillOpen = open, job = std::move(job)] {
      if (*stillOpen) job();
    };
  }

  FakeLoop& loop;
  const std::string name;
  std::deque<Job>& jobs;
  const std::shared_ptr<bool> open = std::make_shared<bool>(true);
};

class FakeLoop::TimerFake final : public Timer {
 public:
  explicit TimerFake(FakeLoop& givenLoop) : loop(givenLoop) {}
  ~TimerFake() override { remove(); }
  void invalidate() override {
    loop.log.push_back("invalidate timer");
    remove();
  }

 private:
  void remove() {
    loop.timers.remove_if([this](const Tick& each) { return each.timer == this; });
  }
  FakeLoop& loop;
};

FakeLoop::FakeLoop(VirtualClock& givenClock, CallLog& givenLog)
    : clock(givenClock), log(givenLog), queue(std::make_unique<QueueFake>(*this, "main", main)) {}

FakeLoop::~FakeLoop() {
  // Destroy the jobs while the list `timers` exists. A job may hold the last reference to a controller, which
  // owns a timer. The destructor of this timer removes the timer from the list.
  for (auto* const jobs : {&main, &worker}) std::exchange(*jobs, {});
  std::exchange(delayed, {});
}

void FakeLoop::setActivationPolicy(ActivationPolicy policy) {
  log.push_back("setActivationPolicy " + std::to_string(static_cast<int>(policy)));
}

int FakeLoop::run(ApplicationDelegate& delegate) {
  if (terminated) return 0;
  delegate.applicationDidFinishLaunching();
  settle();
  delegate.applicationWillTerminate();
  return 0;
}

void FakeLoop::terminate() {
  log.push_back("terminate");
  terminated = true;
}

MainQueue& FakeLoop::mainQueue() {
  return *queue;
}

std::unique_ptr<DispatchQueue> FakeLoop::makeSerialQueue(std::string label, QualityOfService qualityOfService,
                                                         QueueTarget target) {
  log.push_back("makeSerialQueue " + label);
  madeQueues.push_back({label, qualityOfService, target});
  return std::make_unique<QueueFake>(*this, std::move(label),
                                     target == QueueTarget::mainThread ? main : worker);
}

std::unique_ptr<Timer> FakeLoop::scheduleRepeating(Seconds interval, std::function<void()> action) {
  log.push_back("scheduleRepeating " + std::to_string(interval.count()));
  auto timer = std::make_unique<TimerFake>(*this);
  timers.push_back({timer.get(), interval, clock.continuousTime() + interval, std::move(action)});
  return timer;
}

void FakeLoop::run(Step step, const Job& job) {
  job();
  if (whenStepIsDone) whenStepIsDone(step);
}

void FakeLoop::runMain() {
  while (!main.empty() && !terminated) {
    const Job job = std::move(main.front());
    main.pop_front();
    run(Step::main, job);
  }
}

void FakeLoop::serveMain() {
  do {
    runMain();
  } while (fireDue());
}

bool FakeLoop::runOneWorkerJob() {
  if (worker.empty()) return false;
  const Job job = std::move(worker.front());
  worker.pop_front();
  run(Step::worker, job);
  return true;
}

void FakeLoop::settle() {
  do {
    serveMain();
  } while (runOneWorkerJob());
}

/// Runs one delayed job or timer that is due. Returns false if nothing is due.
bool FakeLoop::fireDue() {
  if (terminated) return false;
  const auto next = std::min_element(delayed.begin(), delayed.end(),
                                     [](const Delayed& a, const Delayed& b) { return a.due < b.due; });
  if (next != delayed.end() && next->due <= clock.awakeTime()) {
    const Job job = std::move(next->job);
    delayed.erase(next);
    run(Step::delayed, job);
    return true;
  }
  for (auto& tick : timers) {
    if (tick.due > clock.continuousTime()) continue;
    tick.due += tick.interval;
    if (tick.due <= clock.continuousTime()) tick.due = clock.continuousTime() + tick.interval;
    const auto action = tick.action;
    run(Step::tick, action);
    return true;
  }
  return false;
}

void FakeLoop::advance(Seconds duration) {
  const Seconds end = clock.awakeTime() + duration;
  settle();
  while (clock.awakeTime() < end) {
    if (terminated) return clock.sleep(end - clock.awakeTime());
    Seconds step = end - clock.awakeTime();
    for (const auto& each : delayed) step = std::min(step, each.due - clock.awakeTime());
    for (const auto& each : timers) step = std::min(step, each.due - clock.continuousTime());
    clock.sleep(step);
    settle();
  }
}

}  // namespace kestrune::testing
