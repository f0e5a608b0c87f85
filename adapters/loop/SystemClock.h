#pragma once

#include "ports/Clock.h"

namespace kestrune {

/// The clocks of this machine: CLOCK_MONOTONIC, CLOCK_BOOTTIME and the calendar.
class SystemClock final : public Clock {
 public:
  Seconds awakeTime() const override;
  Seconds continuousTime() const override;
  std::int64_t calendarTime() const override;
  void sleep(Seconds duration) override;
};

}  // namespace kestrune
