#pragma once

#include <gtest/gtest.h>

#include "adapters/loop/EventLoop.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/VirtualTime.h"

// VirtualLoop (the fake main loop) and RealLoop have the same interface, so contract tests can run on both.

namespace kestrune::testing {

struct VirtualLoop {
  VirtualClock clock;
  CallLog log;
  FakeLoop loop{clock, log};

  /// Lets virtual time pass until `condition` holds, for at most 5 s. Then returns whether `condition` holds.
  bool letPassUntil(const std::function<bool()>& condition) {
    for (int step = 0; step < 5000 && !condition(); ++step) loop.advance(Seconds{0.001});
    return condition();
  }

  /// Blocks the main thread for `duration`, as a long job does.
  void keepBusy(Seconds duration) { clock.sleep(duration); }
};

struct RealLoop {
  SignalState restored;
  SystemClock clock;
  EventLoop loop;

  bool letPassUntil(const std::function<bool()>& condition) { return comesTrueElsewhere(loop, condition); }

  void keepBusy(Seconds duration) {
    const Seconds end = clock.awakeTime() + duration;
    while (clock.awakeTime() < end) {
    }
  }
};

using Loops = ::testing::Types<VirtualLoop, RealLoop>;

/// `duration` may be at most 5 s, the time limit of `VirtualLoop::letPassUntil`.
template <typename Loop>
void letPass(Loop& loop, Seconds duration) {
  const Seconds end = loop.clock.continuousTime() + duration;
  loop.letPassUntil([&] { return loop.clock.continuousTime() >= end; });
}

}  // namespace kestrune::testing
