#include <gtest/gtest.h>

#include <set>

#include "tests/adapters/AwakeDesk.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {
namespace {

struct FakeMachine : ::testing::Test {
  CallLog log;
  FakePowerAssertions fake{log};

  void start() {}
  PowerAssertions& assertions() { return fake; }
  bool comesToHold(std::size_t count) const { return fake.held.size() == count; }
  void refuseFromNowOn() { fake.displayFails = fake.systemFails = true; }
  void lose() {
    for (const auto& [identifier, type] : fake.held) fake.lost.insert(identifier);
  }
  void recover() {}
};

/// A machine with nothing but logind: there is one lock for each assertion.
struct LinuxMachine : AwakeDesk {
  void start() {
    startBuses();
    login = serve(loginName, locks.grants());
    connect();
  }
  PowerAssertions& assertions() { return *inhibitors; }
  bool comesToHold(std::size_t count) {
    return comesAbout([this, count] { return locks.held() == count; });
  }
  void refuseFromNowOn() { login->behave(StubService::refuses(SD_BUS_ERROR_ACCESS_DENIED)); }
  void lose() {
    login.reset();
    ASSERT_TRUE(systemTrip.succeeds(loop));
  }
  void recover() {
    login = serve(loginName, locks.grants());
    ASSERT_TRUE(systemTrip.succeeds(loop));
  }
};

template <typename Machine>
struct PowerAssertionsContract : Machine {
  void SetUp() override { this->start(); }
};

using Machines = ::testing::Types<FakeMachine, LinuxMachine>;
TYPED_TEST_SUITE(PowerAssertionsContract, Machines);

TYPED_TEST(PowerAssertionsContract, GivesEachAssertionAnIdentifierOfItsOwn) {
  std::set<std::uint32_t> identifiers;
  for (const auto type : {display, system, display, system}) {
    const auto identifier = this->assertions().create(type, on, reason);
    ASSERT_TRUE(identifier);
    EXPECT_NE(*identifier, 0u);
    identifiers.insert(*identifier);
  }
  EXPECT_EQ(identifiers.size(), 4u);
  EXPECT_TRUE(this->comesToHold(4));
}

TYPED_TEST(PowerAssertionsContract, HoldsEachUntilItIsReleased) {
  const auto first = this->assertions().create(display, on, reason);
  const auto second = this->assertions().create(system, on, reason);
  ASSERT_TRUE(first && second);
  this->assertions().release(*first);
  EXPECT_TRUE(this->comesToHold(1));
  this->assertions().release(*second);
  EXPECT_TRUE(this->comesToHold(0));
}

TYPED_TEST(PowerAssertionsContract, TellsWhichAreHeld) {
  const auto first = this->assertions().create(display, on, reason);
  const auto second = this->assertions().create(system, on, reason);
  ASSERT_TRUE(first && second);
  this->assertions().release(*first);
  EXPECT_FALSE(this->assertions().isHeld(*first));
  EXPECT_TRUE(this->assertions().isHeld(*second));
  EXPECT_FALSE(this->assertions().isHeld(0));
}

TYPED_TEST(PowerAssertionsContract, TellsOfThoseThatAreLostAndTakesNewOnes) {
  const auto lost = this->assertions().create(display, on, reason);
  ASSERT_TRUE(lost);
  this->lose();
  EXPECT_FALSE(this->assertions().isHeld(*lost));
  this->assertions().release(*lost);
  this->recover();
  const auto taken = this->assertions().create(display, on, reason);
  ASSERT_TRUE(taken);
  EXPECT_NE(*taken, *lost);
  EXPECT_TRUE(this->assertions().isHeld(*taken));
  EXPECT_TRUE(this->comesToHold(1));
}

TYPED_TEST(PowerAssertionsContract, IgnoresTheReleaseOfWhatIsNotHeld) {
  const auto kept = this->assertions().create(display, on, reason);
  const auto released = this->assertions().create(system, on, reason);
  ASSERT_TRUE(kept && released);
  this->assertions().release(*released);
  this->assertions().release(*released);
  this->assertions().release(0);
  this->assertions().release(*kept + *released + 1);
  EXPECT_TRUE(this->comesToHold(1));
}

TYPED_TEST(PowerAssertionsContract, GivesNothingForWhatIsRefused) {
  const auto before = this->assertions().create(display, on, reason);
  ASSERT_TRUE(before);
  this->refuseFromNowOn();
  EXPECT_FALSE(this->assertions().create(display, on, reason));
  EXPECT_FALSE(this->assertions().create(system, on, reason));
  EXPECT_TRUE(this->comesToHold(1));
  this->assertions().release(*before);
  EXPECT_TRUE(this->comesToHold(0));
}

}  // namespace
}  // namespace kestrune::testing
