#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

// A library for LD_PRELOAD that lets the calendar time jump: CLOCK_REALTIME is alternately a year ahead and a
// year behind. The monotonic clocks are not changed.

namespace {

constexpr time_t year = 365 * 24 * 3600;

time_t jump() {
  static std::atomic<unsigned> calls = 0;
  return calls++ % 2 == 0 ? year : -year;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* result) noexcept {
  const auto status = static_cast<int>(syscall(SYS_clock_gettime, clock, result));
  if (status == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) result->tv_sec += jump();
  return status;
}

int gettimeofday(timeval* result, void*) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  *result = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

time_t time(time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}
}
