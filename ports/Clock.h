#pragma once

#include <chrono>
#include <cstdint>

namespace kestrune {

using Seconds = std::chrono::duration<double>;

/// Reads clocks and sleeps. The fake for tests runs on virtual time. Any thread.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Returns the time since a fixed moment, without the time that the machine was suspended.
  virtual Seconds awakeTime() const = 0;

  /// Returns the time since a fixed moment, including the time that the machine was suspended.
  virtual Seconds continuousTime() const = 0;

  /// Returns the seconds since 1970. Jumps when the system clock is set, so never use it for timeouts.
  virtual std::int64_t calendarTime() const = 0;

  /// Blocks the calling thread for `duration`; returns at once if `duration` is 0 or less.
  virtual void sleep(Seconds duration) = 0;
};

}  // namespace kestrune
