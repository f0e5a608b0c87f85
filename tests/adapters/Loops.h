#pragma once

#include "adapters/loop/EventLoop.h"
#include "adapters/loop/SystemClock.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/VirtualTime.h"

// The fake main loop and the real one, with the same interface for contract tests.

namespace kestrune::testing {

struct VirtualLoop {
  VirtualClock clock;
  CallLog log;
  FakeLoop loop{clock, log};

  /// Lets time pass until `condition` holds.
  bool letPassUntil(const std::function<bool()>& condition) {
    for (int step = 0; step < 5000 && !condition(); ++step) loop.advance(Seconds{0.001});
    return condition();
  }

  /// Blocks the main thread, like a long job.
  void keepBusy(Seconds duration) { clock.sleep(duration); }
};

struct RealLoop {
  SignalState restored;
  SystemClock clock;
  EventLoop loop;

  bool letPassUntil(const std::function<bool()>& condition) {
    // Wakes the loop, to notice what other threads have done.
    const auto tick = loop.scheduleRepeating(Seconds{0.001}, [] {});
    return comesTrue(loop, condition);
  }

  void keepBusy(Seconds duration) {
    const Seconds end = clock.awakeTime() + duration;
    while (clock.awakeTime() < end) {
    }
  }
};

/// Lets `duration` pass on either loop.
template <typename Loop>
void letPass(Loop& loop, Seconds duration) {
  const Seconds end = loop.clock.continuousTime() + duration;
  loop.letPassUntil([&] { return loop.clock.continuousTime() >= end; });
}

}  // namespace kestrune::testing
