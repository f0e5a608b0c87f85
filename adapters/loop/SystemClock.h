#pragma once

#include <ctime>
#include <thread>

#include "ports/Clock.h"

namespace kestrune {

/// Returns the current time of a kernel clock, such as CLOCK_MONOTONIC. Any thread.
inline Seconds timeOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// Implements the port Clock with the clocks of the kernel. Any thread.
class SystemClock final : public Clock {
 public:
  Seconds awakeTime() const override { return timeOf(CLOCK_MONOTONIC); }
  Seconds continuousTime() const override { return timeOf(CLOCK_BOOTTIME); }
  std::int64_t calendarTime() const override { return std::time(nullptr); }
  void sleep(Seconds duration) override { std::this_thread::sleep_for(duration); }
};

}  // namespace kestrune
