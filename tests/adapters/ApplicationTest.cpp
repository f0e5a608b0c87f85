#include <gtest/gtest.h>

#include "tests/adapters/Loops.h"

namespace kestrune::testing {
namespace {

template <typename Loop>
struct ApplicationContract : ::testing::Test, ApplicationDelegate {
  Loop loop;
  CallLog events;
  std::function<void()> onLaunch = [] {};

  void applicationDidFinishLaunching() override {
    events.push_back("launched");
    onLaunch();
  }
  void applicationWillTerminate() override { events.push_back("terminating"); }

  Application& application() { return loop.loop; }
  MainQueue& queue() { return loop.loop.mainQueue(); }
  Job note(const std::string& event) {
    return [this, event] { events.push_back(event); };
  }
};

using Loops = ::testing::Types<VirtualLoop, RealLoop>;
TYPED_TEST_SUITE(ApplicationContract, Loops);

TYPED_TEST(ApplicationContract, TellsItsDelegateOfStartAndEndOnceAndRunsJobsBetween) {
  this->queue().async(this->note("posted before"));
  this->onLaunch = [&] {
    this->queue().async(this->note("posted at launch"));
    this->queue().async([&] { this->application().terminate(); });
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "posted before", "posted at launch", "terminating"}));
}

TYPED_TEST(ApplicationContract, EndsAtOnceWhenItIsTerminatedWhileItLaunches) {
  this->onLaunch = [&] {
    this->queue().async(this->note("job"));
    this->application().terminate();
    this->events.push_back("end of launch");
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "end of launch", "terminating"}));
}

TYPED_TEST(ApplicationContract, LetsTheJobUnderWayEndAndRunsNoOtherAfterIt) {
  this->onLaunch = [&] {
    this->queue().async([&] {
      this->application().terminate();
      this->queue().async(this->note("posted after"));
      this->queue().asyncAfter(Seconds{0}, this->note("posted after, with a delay"));
      this->events.push_back("end of job");
    });
    this->queue().async(this->note("posted before"));
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "end of job", "terminating"}));
}

TYPED_TEST(ApplicationContract, RunsNoJobOfAQueueOfTheMainThreadAfterItWasTerminated) {
  const auto monitor =
      this->loop.loop.makeSerialQueue("monitor", QualityOfService::standard, QueueTarget::mainThread);
  this->onLaunch = [&] {
    this->queue().async([&] { this->application().terminate(); });
    monitor->async(this->note("monitor"));
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "terminating"}));
}

TYPED_TEST(ApplicationContract, RunsNoTimerThatIsDueAfterItWasTerminated) {
  const auto timer = this->loop.loop.scheduleRepeating(Seconds{0.002}, this->note("tick"));
  this->onLaunch = [&] {
    this->queue().async([&] {
      this->loop.keepBusy(Seconds{0.005});
      this->application().terminate();
    });
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "terminating"}));
}

TYPED_TEST(ApplicationContract, TakesNoNoticeOfASecondTermination) {
  this->onLaunch = [&] {
    this->application().terminate();
    this->application().terminate();
  };
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, (CallLog{"launched", "terminating"}));
}

TYPED_TEST(ApplicationContract, DoesNotLaunchWhenItWasTerminatedBefore) {
  this->application().terminate();
  EXPECT_EQ(this->application().run(*this), 0);
  EXPECT_EQ(this->events, CallLog{});
}

}  // namespace
}  // namespace kestrune::testing
