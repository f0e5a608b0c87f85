#pragma once

#include <functional>
#include <memory>

#include "ports/Clock.h"

namespace kestrune {

/// A running repeating timer. Destroying it invalidates it.
class Timer {
 public:
  virtual ~Timer() = default;

  /// After this returns, the action does not run again. May be called more than once. Main thread.
  virtual void invalidate() = 0;
};

class Timers {
 public:
  virtual ~Timers() = default;

  /// Runs `action` on the main thread every `interval`, first after one interval. Time suspended counts.
  /// Ticks missed during suspend, or while the main thread was busy, become one tick. Main thread.
  virtual std::unique_ptr<Timer> scheduleRepeating(Seconds interval, std::function<void()> action) = 0;
};

}  // namespace kestrune
