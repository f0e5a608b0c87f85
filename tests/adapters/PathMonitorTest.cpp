#include <gtest/gtest.h>

#include <deque>

#include "tests/adapters/NetworkRig.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {
namespace {

/// A queue of the main thread that runs nothing until a test says so.
class HeldQueue final : public DispatchQueue {
 public:
  const std::string& label() const override { return name; }
  void async(Job job) override { jobs.push_back(std::move(job)); }
  void close() override { jobs.clear(); }

  bool isEmpty() const { return jobs.empty(); }
  bool isRunning() const { return running; }

  void runOne() {
    const Job job = std::move(jobs.front());
    jobs.pop_front();
    running = true;
    job();
    running = false;
  }

 private:
  const std::string name = "held";
  std::deque<Job> jobs;
  bool running = false;
};

/// The network is what the test reports.
struct FakeNetwork {
  CallLog log;
  FakePathMonitors monitors{log};
  bool connected = false;

  void plugIn() { connect(true); }
  void pullOut() { connect(false); }
  bool comesTrue(const std::function<bool()>& condition) {
    monitors.report(connected ? viaCable : disconnected);
    return condition();
  }

 private:
  void connect(bool now) {
    connected = now;
    monitors.report(connected ? viaCable : disconnected);
  }
};

struct RealNetwork : NetworkRig {
  void plugIn() { network.ip({"route add default via 10.1.0.1"}); }
  void pullOut() { network.ip({"route delete default"}); }
  bool comesTrue(const std::function<bool()>& condition) { return testing::comesTrue(loop, condition); }
};

template <typename Network>
struct PathMonitorContract : ::testing::Test {
  void start() {
    monitor->start(queue, [this](NetworkPath path) {
      EXPECT_TRUE(queue.isRunning());
      updates.push_back(path);
    });
  }

  /// Whether the next update says `path`.
  bool reports(const NetworkPath& path) {
    if (!network.comesTrue([this] { return !queue.isEmpty(); })) return false;
    const std::size_t before = updates.size();
    while (!queue.isEmpty()) queue.runOne();
    return updates.size() > before && updates.back() == path;
  }

  Network network;
  HeldQueue queue;
  std::unique_ptr<PathMonitor> monitor = network.monitors.makePathMonitor();
  std::vector<NetworkPath> updates;
};

using Networks = ::testing::Types<FakeNetwork, RealNetwork>;
TYPED_TEST_SUITE(PathMonitorContract, Networks);

TYPED_TEST(PathMonitorContract, TellsThePathSoonAfterTheStart) {
  this->start();
  EXPECT_TRUE(this->updates.empty());
  EXPECT_TRUE(this->reports(disconnected));
}

TYPED_TEST(PathMonitorContract, TellsEachChange) {
  this->start();
  EXPECT_TRUE(this->reports(disconnected));
  this->network.plugIn();
  EXPECT_TRUE(this->reports(viaCable));
  this->network.pullOut();
  EXPECT_TRUE(this->reports(disconnected));
}

TYPED_TEST(PathMonitorContract, TellsNothingOnceCancelledEvenOfWhatIsOnTheQueue) {
  this->start();
  EXPECT_TRUE(this->reports(disconnected));
  this->network.plugIn();
  ASSERT_TRUE(this->network.comesTrue([this] { return !this->queue.isEmpty(); }));
  this->monitor->cancel();
  while (!this->queue.isEmpty()) this->queue.runOne();
  EXPECT_EQ(this->updates.size(), 1u);
}

TYPED_TEST(PathMonitorContract, MayBeCancelledBeforeItStartsAndMoreThanOnce) {
  this->monitor->cancel();
  this->monitor->cancel();
  EXPECT_TRUE(this->queue.isEmpty());
}

}  // namespace
}  // namespace kestrune::testing
