#include "adapters/loop/SystemClock.h"

#include <cerrno>
#include <cmath>
#include <ctime>

namespace kestrune {

namespace {

Seconds read(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return Seconds(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9);
}

}  // namespace

Seconds SystemClock::awakeTime() const {
  return read(CLOCK_MONOTONIC);
}

Seconds SystemClock::continuousTime() const {
  return read(CLOCK_BOOTTIME);
}

std::int64_t SystemClock::calendarTime() const {
  return std::time(nullptr);
}

void SystemClock::sleep(Seconds duration) {
  if (duration.count() <= 0) return;
  timespec rest{};
  rest.tv_sec = static_cast<time_t>(duration.count());
  rest.tv_nsec = static_cast<long>((duration.count() - std::floor(duration.count())) * 1e9);
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, &rest) == EINTR) {
  }
}

}  // namespace kestrune
