#include "adapters/bus/BusInquiry.h"

#include <gtest/gtest.h>

#include "tests/rig/SignalState.h"
#include "tests/rig/StubService.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

constexpr auto serviceName = "org.example.Service";
using Outcome = BusInquiry::Outcome;

struct BusInquiryOutcome : ::testing::Test {
  void SetUp() override {
    daemon.start();
    bus.connect();
  }

  void serve(StubService::Behaviour behaviour) {
    service = std::make_unique<StubService>(daemon.address(), serviceName, std::move(behaviour));
  }
  void ask() {
    inquiry.ask({serviceName, "/", "org.example", "Ask"}, [this](sd_bus_message* reply, Outcome outcome) {
      EXPECT_EQ(reply != nullptr, outcome == Outcome::answered);
      outcomes.push_back(outcome);
    });
  }
  std::vector<Outcome> outcomesAtLast() {
    EXPECT_TRUE(comesTrueElsewhere(loop, [this] { return inquiry.isDone(); }));
    return outcomes;
  }

  SignalState restored;
  PrivateBus daemon;
  EventLoop loop;
  SessionBus bus{loop};
  BusInquiry inquiry{bus};
  std::unique_ptr<StubService> service;
  std::vector<Outcome> outcomes;
};

TEST_F(BusInquiryOutcome, IsAnAnswer) {
  serve([](sd_bus_message* call) { return sd_bus_reply_method_return(call, "") >= 0; });
  ask();
  EXPECT_EQ(outcomesAtLast(), std::vector{Outcome::answered});
}

TEST_F(BusInquiryOutcome, IsARefusal) {
  serve(StubService::refuses(SD_BUS_ERROR_ACCESS_DENIED));
  ask();
  EXPECT_EQ(outcomesAtLast(), std::vector{Outcome::refused});
}

TEST_F(BusInquiryOutcome, IsThatNobodyIsThere) {
  ask();
  EXPECT_EQ(outcomesAtLast(), std::vector{Outcome::nobodyThere});
}

TEST_F(BusInquiryOutcome, IsNoAnswerOfOneThatGoesWithTheQuestion) {
  serve(StubService::saysNothing());
  ask();
  ASSERT_TRUE(comesTrueElsewhere(loop, [this] { return !service->calls().empty(); }));
  EXPECT_FALSE(inquiry.isDone());
  service.reset();
  EXPECT_EQ(outcomesAtLast(), std::vector{Outcome::unanswered});
}

TEST_F(BusInquiryOutcome, IsNoAnswerOfOneThatIsTooLate) {
  BusProbe probe;
  bus.add(probe);
  probe.catchUp(loop);
  serve(StubService::saysNothing());
  ASSERT_GE(sd_bus_set_method_call_timeout(probe.bus, 1), 0);
  ask();
  EXPECT_EQ(outcomesAtLast(), std::vector{Outcome::unanswered});
  EXPECT_EQ(probe.losses, 0);
  bus.remove(probe);
}

}  // namespace
}  // namespace kestrune::testing
