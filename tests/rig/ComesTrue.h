#pragma once

#include <functional>

#include "adapters/loop/EventLoop.h"

namespace kestrune::testing {

/// The time limit of everything that a test waits for, long enough for a busy machine.
inline constexpr Seconds patience{20.0};
inline constexpr int patienceInMilliseconds = 20'000;

/// Runs the loop until `condition` holds; false at the time limit.
inline bool comesTrue(EventLoop& loop, const std::function<bool()>& condition) {
  bool late = false;
  const EventSource deadline = loop.after(patience, [&late] { late = true; });
  loop.runUntil([&] { return late || condition(); });
  return condition();
}

/// The same, for a condition that another thread or process changes.
inline bool comesTrueElsewhere(EventLoop& loop, const std::function<bool()>& condition) {
  const auto tick = loop.scheduleRepeating(Seconds{0.002}, [] {});
  return comesTrue(loop, condition);
}

/// Runs the loop until all jobs on its queue are done, and the jobs that they post.
inline void settleQueue(EventLoop& loop) {
  for (int round = 0; round < 12; ++round) {
    bool done = false;
    loop.mainQueue().async([&done] { done = true; });
    loop.runUntil([&done] { return done; });
  }
}

/// Whether no event source of the loop is ready.
inline bool isIdle(EventLoop& loop) {
  constexpr int many = 1000;
  for (int turn = 0; turn < many; ++turn) {
    if (sd_event_run(loop.event(), 0) == 0) return true;
  }
  return false;
}

/// The time that `work` takes.
inline Seconds durationOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::steady_clock::now() - begin;
}

}  // namespace kestrune::testing
