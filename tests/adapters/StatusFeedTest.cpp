#include "ports/StatusFeed.h"

#include "tests/adapters/Instances.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {
namespace {

using Lines = std::vector<std::string>;

/// Subscribes to a StatusFeed, and records the calls of both callbacks.
struct Heard {
  Lines lines;
  int absences = 0;
  StatusSubscription subscription;

  void subscribeTo(StatusFeed& feed) {
    subscription =
        feed.subscribe([this](const std::string& line) { lines.push_back(line); }, [this] { ++absences; });
  }
};

struct VirtualFeed : VirtualLoop {
  FakeStatusFeed clientFeed{loop.mainQueue()};
  StatusFeed& client() { return clientFeed; }
  StatusFeed& other() { return clientFeed; }
  void startClient() {}
  void endClient() { clientFeed.end(); }
};

struct RealFeed : Instances {
  std::unique_ptr<Start> running;
  Start asking{loop, folders};
  StatusFeed& client() { return running->rendezvous; }
  StatusFeed& other() { return asking.rendezvous; }
  void startClient() {
    running = std::make_unique<Start>(loop, folders);
    EXPECT_TRUE(running->claims());
  }
  void endClient() { running.reset(); }
};

template <typename Feed>
struct StatusFeedContract : ::testing::Test, Feed {
  bool comesTo(const Heard& heard, const Lines& lines) {
    return this->letPassUntil([&] { return heard.lines == lines; });
  }
};
using Feeds = ::testing::Types<VirtualFeed, RealFeed>;
TYPED_TEST_SUITE(StatusFeedContract, Feeds);

TYPED_TEST(StatusFeedContract, SubscriberGetsTheNewestLineAndEachChange) {
  this->startClient();
  this->client().publish([] { return "1"; });
  this->client().publish([] { return "2"; });
  Heard heard;
  heard.subscribeTo(this->other());
  EXPECT_TRUE(heard.lines.empty());
  ASSERT_TRUE(this->comesTo(heard, {"2"}));
  this->client().publish([] { return "2"; });
  this->client().publish([] { return ""; });
  this->client().publish([] { return "2"; });
  EXPECT_TRUE(this->comesTo(heard, {"2", "", "2"}));
  EXPECT_EQ(heard.absences, 0);
}

TYPED_TEST(StatusFeedContract, EverySubscriberIsToldUntilItLeaves) {
  this->startClient();
  this->client().publish([] { return "1"; });
  Heard gone, first, second;
  for (Heard* const each : {&gone, &first, &second}) each->subscribeTo(this->other());
  gone.subscription.reset();
  EXPECT_TRUE(this->comesTo(first, {"1"}));
  EXPECT_TRUE(this->comesTo(second, {"1"}));
  EXPECT_TRUE(gone.lines.empty());
  EXPECT_EQ(gone.absences, 0);
}

TYPED_TEST(StatusFeedContract, AbsenceIsToldAndALaterClientIsFound) {
  Heard heard;
  heard.subscribeTo(this->other());
  EXPECT_EQ(heard.absences, 0);
  ASSERT_TRUE(this->letPassUntil([&] { return heard.absences == 1; }));
  for (int start = 1; start <= 2; ++start) {
    this->startClient();
    this->client().publish([] { return "1"; });
    ASSERT_TRUE(this->letPassUntil([&] { return heard.lines.size() == static_cast<std::size_t>(start); }));
    this->endClient();
    ASSERT_TRUE(this->letPassUntil([&] { return heard.absences == start + 1; }));
  }
  EXPECT_EQ(heard.lines, (Lines{"1", "1"}));
}

TYPED_TEST(StatusFeedContract, CallbackMayDestroyItsSubscription) {
  this->startClient();
  this->client().publish([] { return "1"; });
  StatusSubscription subscription;
  int calls = 0;
  const auto leave = [&] {
    ++calls;
    subscription.reset();
  };
  subscription = this->other().subscribe([&](const std::string&) { leave(); }, leave);
  Heard watch;
  watch.subscribeTo(this->other());
  this->client().publish([] { return "2"; });
  ASSERT_TRUE(
      this->letPassUntil([&] { return !watch.lines.empty() && watch.lines.back() == "2" && calls > 0; }));
  EXPECT_EQ(calls, 1);
  this->endClient();
  subscription = this->other().subscribe([&](const std::string&) { leave(); }, leave);
  EXPECT_TRUE(this->letPassUntil([&] { return calls == 2; }));
}

struct ClientSubscriptionTest : ::testing::Test, RealFeed {
  bool isAbsent(const Heard& heard, int times) {
    return letPassUntil([&] { return heard.absences == times; });
  }
};

TEST_F(ClientSubscriptionTest, ClientInANewFolderIsFound) {
  std::filesystem::remove_all(runtime);
  Heard heard;
  heard.subscribeTo(other());
  ASSERT_TRUE(isAbsent(heard, 1));
  startClient();
  client().publish([] { return "in the state folder"; });
  EXPECT_TRUE(letPassUntil([&] { return heard.lines == Lines{"in the state folder"}; }));
}

TEST_F(ClientSubscriptionTest, ClientIsFoundAfterItsFolderWasRemoved) {
  startClient();
  client().publish([] { return "1"; });
  Heard heard;
  heard.subscribeTo(other());
  ASSERT_TRUE(letPassUntil([&] { return heard.lines.size() == 1; }));
  std::filesystem::remove_all(runtime);
  std::filesystem::create_directories(runtime);
  endClient();
  ASSERT_TRUE(isAbsent(heard, 1));
  startClient();
  client().publish([] { return "2"; });
  EXPECT_TRUE(letPassUntil([&] { return heard.lines == (Lines{"1", "2"}); }));
}

TEST_F(ClientSubscriptionTest, SuccessorOfAnEndingClientIsFound) {
  startClient();
  client().publish([] { return "1"; });
  Heard heard;
  heard.subscribeTo(other());
  ASSERT_TRUE(letPassUntil([&] { return heard.lines.size() == 1; }));
  running->rendezvous.announceEnd();
  client().publish([] { return "2"; });
  EXPECT_TRUE(letPassUntil([&] { return heard.lines.size() == 2; }));
  endClient();
  startClient();
  client().publish([] { return "3"; });
  EXPECT_TRUE(letPassUntil([&] { return heard.lines == (Lines{"1", "2", "3"}); }));
  EXPECT_EQ(heard.absences, 0);
}

TEST_F(ClientSubscriptionTest, ClientThatSendsAnEndlessLineCountsAsAbsent) {
  std::filesystem::create_directories(place);
  FileDescriptor listening = instanceSocket(place, "socket", &::bind);
  ASSERT_EQ(listen(listening.get(), 1), 0);
  Heard heard;
  heard.subscribeTo(other());
  const FileDescriptor sending(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  listening.reset();  // so that the subscription cannot connect again
  ASSERT_TRUE(sendLine(sending, "1"));
  ASSERT_TRUE(letPassUntil([&] { return heard.lines == Lines{"1"}; }));
  std::string rest((std::size_t{1} << 20) + 1, 'x');  // one byte more than a line may have
  EXPECT_TRUE(letPassUntil([&] {
    const ssize_t sent = send(sending.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (sent > 0) rest.erase(0, static_cast<std::size_t>(sent));
    return heard.absences == 1;
  }));
  EXPECT_EQ(heard.lines, Lines{"1"});
}

TEST_F(ClientSubscriptionTest, SilentClientCountsAsAbsent) {
  EventLoop stopped;
  Start hung(stopped, folders);
  ASSERT_TRUE(hung.claims());
  hung.rendezvous.publish([] { return "never said"; });
  Heard heard;
  const Seconds begin = clock.awakeTime();
  heard.subscribeTo(other());
  ASSERT_TRUE(isAbsent(heard, 1));
  EXPECT_GE(clock.awakeTime() - begin, Seconds{1.9});
  EXPECT_TRUE(heard.lines.empty());
}

}  // namespace
}  // namespace kestrune::testing
