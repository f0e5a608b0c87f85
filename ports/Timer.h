#pragma once

#include <functional>
#include <memory>

#include "ports/Clock.h"

namespace kestrune {

/// A repeating timer under way. Destroying it invalidates it.
class Timer {
 public:
  virtual ~Timer() = default;

  /// Once this returns, the action does not run again. May be called more than once. Main thread.
  virtual void invalidate() = 0;
};

/// Makes timers on the main loop. Behind a port so that a test fires them by moving its clock.
class Timers {
 public:
  virtual ~Timers() = default;

  /// Runs `action` on the main thread every `interval`, first one interval from now. Time asleep counts:
  /// ticks that were missed while the machine slept, or while the main thread was busy, are one tick. Main
  /// thread.
  virtual std::unique_ptr<Timer> scheduleRepeating(Seconds interval, std::function<void()> action) = 0;
};

}  // namespace kestrune
