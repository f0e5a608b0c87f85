#pragma once

#include <functional>

#include "adapters/loop/EventLoop.h"

namespace kestrune::testing {

/// How long a test waits for something that is certain to come about soon, also on a busy machine.
inline constexpr Seconds patience{20.0};
inline constexpr int patienceInMilliseconds = 20'000;

/// Runs the loop until `condition` holds; false when that does not come about in time.
inline bool comesTrue(EventLoop& loop, const std::function<bool()>& condition) {
  bool late = false;
  const EventSource deadline = loop.after(patience, [&late] { late = true; });
  loop.runUntil([&] { return late || condition(); });
  return condition();
}

/// As `comesTrue`, of something that happens on another thread or in another process.
inline bool comesTrueElsewhere(EventLoop& loop, const std::function<bool()>& condition) {
  const auto tick = loop.scheduleRepeating(Seconds{0.002}, [] {});
  return comesTrue(loop, condition);
}

/// Runs the loop until everything that was posted on its queue, and what that posted, is done.
inline void settleQueue(EventLoop& loop) {
  for (int round = 0; round < 12; ++round) {
    bool done = false;
    loop.mainQueue().async([&done] { done = true; });
    loop.runUntil([&done] { return done; });
  }
}

/// Whether the loop has nothing to do until something happens.
inline bool isIdle(EventLoop& loop) {
  constexpr int many = 1000;
  for (int turn = 0; turn < many; ++turn) {
    if (sd_event_run(loop.event(), 0) == 0) return true;
  }
  return false;
}

/// How long `work` keeps its caller waiting.
inline Seconds durationOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::steady_clock::now() - begin;
}

}  // namespace kestrune::testing
