#pragma once

#include <chrono>
#include <cstdint>

namespace kestrune {

using Seconds = std::chrono::duration<double>;

/// Tells and spends time. Behind a port so that a test decides how fast time passes.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Time since some fixed moment, not counting the time that the machine slept. Any thread.
  virtual Seconds awakeTime() const = 0;

  /// Time since some fixed moment, counting the time that the machine slept. Any thread.
  virtual Seconds continuousTime() const = 0;

  /// Seconds since 1970 as the user's calendar goes. It jumps when somebody sets the clock: nothing may wait
  /// by it. Any thread.
  virtual std::int64_t calendarTime() const = 0;

  /// Blocks the calling thread for `duration`; returns at once for a duration of 0 or less. Any thread.
  virtual void sleep(Seconds duration) = 0;
};

}  // namespace kestrune
