#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "ports/Clock.h"

namespace kestrune {

/// A running timer. The destructor stops it.
class Timer {
 public:
  virtual ~Timer() = default;

  /// Stops the timer: the action does not run again. May be called more than once. Main thread.
  virtual void invalidate() = 0;
};

class Timers {
 public:
  virtual ~Timers() = default;

  /// Runs `action` on the main thread every `interval`, first after one interval. Time in suspend counts, but
  /// all ticks missed in suspend or while the main thread is busy become one tick. Main thread.
  virtual std::unique_ptr<Timer> scheduleRepeating(Seconds interval, std::function<void()> action) = 0;

  /// Runs `action` once on the main thread, after `delay`. Time in suspend counts. Main thread.
  std::unique_ptr<Timer> scheduleOnce(Seconds delay, std::function<void()> action) {
    auto once = std::make_unique<OneShot>();
    once->timer = scheduleRepeating(delay, [timer = &once->timer, action = std::move(action)] {
      timer->reset();
      action();
    });
    return once;
  }

 private:
  struct OneShot final : Timer {
    void invalidate() override { timer.reset(); }
    std::unique_ptr<Timer> timer;
  };
};

}  // namespace kestrune
