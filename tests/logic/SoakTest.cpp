#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/HeapInUse.h"
#include "tests/support/Soak.h"

namespace kestrune::testing {
namespace {

constexpr Seconds day{24 * 3600.0};

/// Always the same week, unless somebody wants another.
std::uint64_t seed() {
  const char* const wanted = std::getenv("KESTRUNE_SOAK_SEED");
  return wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 20260;
}

void liveAWeek(Soak& soak) {
  soak.live(day);
  soak.calmDown();
  const auto before = heapInUse();
  soak.live(6 * day);
  soak.calmDown();
  EXPECT_LT(heapInUse(), before + 64 * 1024);
  soak.quit();
}

TEST(Soak, AWeekOfEverythingBreaksNoRuleAndLeavesNothingBehind) {
  SCOPED_TRACE("KESTRUNE_SOAK_SEED=" + std::to_string(seed()));
  Soak soak(seed());
  try {
    liveAWeek(soak);
  } catch (const RuleBroken& broken) {
    FAIL() << broken.what();
  }
  // A week in which little happened would prove little.
  EXPECT_GT(soak.refreshes(), 20'000U);
  EXPECT_GT(soak.menus(), 30'000U);
  EXPECT_EQ(soak.happened().size(), 28U);
  for (const auto& [what, times] : soak.happened()) EXPECT_GE(times, 10) << what;
}

TEST(Soak, AnEndAtAnyMomentStopsTheBackendAndLeavesNothingBehind) {
  SCOPED_TRACE("KESTRUNE_SOAK_SEED=" + std::to_string(seed()));
  constexpr std::uint64_t lives = 600;
  std::size_t before = 0;
  int inTheMiddle = 0;
  for (std::uint64_t life = 0; life < lives; ++life) {
    if (life == lives / 4) before = heapInUse();
    Soak soak(seed() * lives + life);
    try {
      soak.liveAndQuit(Seconds{600});
    } catch (const RuleBroken& broken) {
      FAIL() << "life " << life << ": " << broken.what();
    }
    inTheMiddle += soak.happened().contains("an end in the middle of a command") ? 1 : 0;
  }
  EXPECT_LT(heapInUse(), before + 64 * 1024);
  EXPECT_GT(inTheMiddle, 30) << "that is what most may go wrong with";
}

}  // namespace
}  // namespace kestrune::testing
