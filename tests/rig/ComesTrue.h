#pragma once

#include <functional>

#include "adapters/loop/EventLoop.h"

namespace kestrune::testing {

/// The time limit of every wait in a test. It is long enough for a busy machine.
inline constexpr Seconds patience{20.0};
inline constexpr int patienceInMilliseconds = 20'000;

/// Runs the loop until `condition` is true. Returns false if it is still false at the time limit.
inline bool comesTrue(EventLoop& loop, const std::function<bool()>& condition) {
  bool late = false;
  const EventSource deadline = loop.after(patience, [&late] { late = true; });
  loop.runUntil([&] { return late || condition(); });
  return condition();
}

/// Like comesTrue(), for a condition that another thread or process changes. The loop may get no event from
/// such a change, so this checks the condition every 2 ms.
inline bool comesTrueElsewhere(EventLoop& loop, const std::function<bool()>& condition) {
  const auto tick = loop.scheduleRepeating(Seconds{0.002}, [] {});
  return comesTrue(loop, condition);
}

/// Runs the jobs on the main queue of the loop. Then runs the jobs that these jobs have posted, and so on.
/// Stops after 12 rounds.
inline void settleQueue(EventLoop& loop) {
  for (int round = 0; round < 12; ++round) {
    bool done = false;
    loop.mainQueue().async([&done] { done = true; });
    loop.runUntil([&done] { return done; });
  }
}

/// Handles events until no event source of the loop is ready. Gives up and returns false after 1000 calls of
/// sd_event_run.
inline bool isIdle(EventLoop& loop) {
  constexpr int many = 1000;
  for (int turn = 0; turn < many; ++turn) {
    if (sd_event_run(loop.event(), 0) == 0) return true;
  }
  return false;
}

inline Seconds durationOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::steady_clock::now() - begin;
}

}  // namespace kestrune::testing
