#pragma once

#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// As `comesTrue`, of something that happens on another thread or in another process.
inline bool comesTrueElsewhere(EventLoop& loop, const std::function<bool()>& condition) {
  const auto tick = loop.scheduleRepeating(Seconds{0.002}, [] {});
  return comesTrue(loop, condition);
}

}  // namespace kestrune::testing
