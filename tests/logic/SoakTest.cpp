#include <cstdlib>
#include <string>

#include "tests/rig/Memory.h"
#include "tests/rig/Soak.h"

namespace kestrune::testing {
namespace {

constexpr Seconds day{24 * 3600.0};

/// Returns the seed of the random events: KESTRUNE_SOAK_SEED if it is set, else the same at each run.
std::uint64_t seed() {
  const char* const wanted = std::getenv("KESTRUNE_SOAK_SEED");
  return wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 20260;
}

void liveDays(Soak& soak, std::uint64_t days) {
  soak.live(day / 2);
  soak.calmDown();
  const auto before = heapInUse();
  soak.live(day * days - day / 2);
  soak.calmDown();
  EXPECT_LT(heapInUse(), before + 64 * 1024);
  soak.quit();
}

TEST(Soak, DaysOfRandomEventsKeepTheInvariants) {
  const char* const wanted = std::getenv("KESTRUNE_SOAK_DAYS");
  const std::uint64_t days = wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 2;
  SCOPED_TRACE("KESTRUNE_SOAK_SEED=" + std::to_string(seed()));
  Soak soak(seed());
  try {
    liveDays(soak, days);
  } catch (const RuleBroken& broken) {
    FAIL() << broken.what();
  }
  // Check that enough events happened, because a test with few events would prove little.
  EXPECT_GT(soak.refreshes(), 2'500 * days);
  EXPECT_GT(soak.menus(), 4'000 * days);
  EXPECT_EQ(soak.happened().size(), 28U);
  for (const auto& [what, times] : soak.happened())
    EXPECT_GE(static_cast<std::uint64_t>(times), 5 * days / 2) << what;
}

TEST(Soak, QuitAtAnyMomentStopsTheBackend) {
  SCOPED_TRACE("KESTRUNE_SOAK_SEED=" + std::to_string(seed()));
  constexpr std::uint64_t lives = 200;
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
  EXPECT_GT(inTheMiddle, 10) << "quits while a command runs";
}

}  // namespace
}  // namespace kestrune::testing
