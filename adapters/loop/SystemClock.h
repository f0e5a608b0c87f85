#pragma once

#include "ports/Clock.h"

namespace kestrune {

/// The machine's own clocks.
class SystemClock final : public Clock {
 public:
  Seconds awakeTime() const override;
  Seconds continuousTime() const override;
  std::int64_t calendarTime() const override;
  void sleep(Seconds duration) override;
};

}  // namespace kestrune
