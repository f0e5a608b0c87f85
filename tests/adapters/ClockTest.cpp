#include <gtest/gtest.h>

#include "adapters/loop/SystemClock.h"
#include "tests/rig/VirtualTime.h"

namespace kestrune::testing {
namespace {

template <typename ClockUnderTest>
struct ClockContract : ::testing::Test {
  ClockUnderTest clock;
};

using Clocks = ::testing::Types<VirtualClock, SystemClock>;
TYPED_TEST_SUITE(ClockContract, Clocks);

TYPED_TEST(ClockContract, SleepsAtLeastAsLongAsAsked) {
  const Seconds awake = this->clock.awakeTime();
  const Seconds continuous = this->clock.continuousTime();
  this->clock.sleep(Seconds{0.002});
  EXPECT_GE(this->clock.awakeTime() - awake, Seconds{0.00199});
  EXPECT_GE(this->clock.continuousTime() - continuous, Seconds{0.00199});
}

TYPED_TEST(ClockContract, DoesNotGoBackWhenAskedToSleepForNothing) {
  const Seconds before = this->clock.awakeTime();
  this->clock.sleep(Seconds{0});
  this->clock.sleep(Seconds{-5});
  EXPECT_GE(this->clock.awakeTime(), before);
}

}  // namespace
}  // namespace kestrune::testing
