#include "platform/linux/StatusSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/adapters/Loops.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/ResourceLimit.h"
#include "tests/support/ScratchFolder.h"
#include "tests/support/StandardErrorText.h"

namespace kestrune::testing {
namespace {

using Lines = std::vector<std::string>;

/// What a subscriber heard.
struct Heard {
  Lines lines;
  int ends = 0;
  std::unique_ptr<StatusSubscription> subscription;

  bool subscribeTo(StatusFeed& feed) {
    subscription =
        feed.subscribe([this](const std::string& line) { lines.push_back(line); }, [this] { ++ends; });
    return subscription != nullptr;
  }
};

struct VirtualFeed : VirtualLoop {
  FakeStatusFeed clientFeed{loop.mainQueue()};
  StatusFeed& client() { return clientFeed; }
  StatusFeed& other() { return clientFeed; }
  void endClient() { clientFeed.end(); }
};

struct RealFeed : RealLoop {
  ScratchFolder folder;
  std::string path = folder.file("client/status");
  std::unique_ptr<StatusSocket> clientFeed = std::make_unique<StatusSocket>(loop, path);
  StatusSocket otherFeed{loop, path};
  StatusFeed& client() { return *clientFeed; }
  StatusFeed& other() { return otherFeed; }
  void endClient() { clientFeed.reset(); }
};

template <typename Feed>
struct StatusFeedContract : ::testing::Test, Feed {
  bool comesTo(const Heard& heard, const Lines& lines) {
    return this->letPassUntil([&] { return heard.lines == lines; });
  }
};
using Feeds = ::testing::Types<VirtualFeed, RealFeed>;
TYPED_TEST_SUITE(StatusFeedContract, Feeds);

TYPED_TEST(StatusFeedContract, HasNoClientBeforeItsFirstLine) {
  Heard heard;
  EXPECT_FALSE(heard.subscribeTo(this->other()));
}

TYPED_TEST(StatusFeedContract, TellsASubscriberTheNewestLineAndEachLaterOne) {
  this->client().publish("1");
  this->client().publish("2");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(this->other()));
  EXPECT_TRUE(heard.lines.empty());
  EXPECT_TRUE(this->comesTo(heard, {"2"}));
  this->client().publish("3");
  this->client().publish("");
  EXPECT_TRUE(this->comesTo(heard, {"2", "3", ""}));
  EXPECT_EQ(heard.ends, 0);
}

TYPED_TEST(StatusFeedContract, TellsNoLineTwiceInARow) {
  this->client().publish("1");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(this->other()));
  ASSERT_TRUE(this->comesTo(heard, {"1"}));
  this->client().publish("1");
  this->client().publish("2");
  this->client().publish("1");
  EXPECT_TRUE(this->comesTo(heard, {"1", "2", "1"}));
}

TYPED_TEST(StatusFeedContract, TellsEverySubscriber) {
  this->client().publish("1");
  Heard first, second;
  ASSERT_TRUE(first.subscribeTo(this->other()));
  ASSERT_TRUE(second.subscribeTo(this->other()));
  EXPECT_TRUE(this->comesTo(first, {"1"}));
  EXPECT_TRUE(this->comesTo(second, {"1"}));
}

TYPED_TEST(StatusFeedContract, TellsNobodyWhoHasLeft) {
  this->client().publish("1");
  Heard gone, stays;
  ASSERT_TRUE(gone.subscribeTo(this->other()));
  ASSERT_TRUE(stays.subscribeTo(this->other()));
  gone.subscription.reset();
  this->client().publish("2");
  ASSERT_TRUE(this->letPassUntil([&] { return !stays.lines.empty() && stays.lines.back() == "2"; }));
  EXPECT_TRUE(gone.lines.empty());
  EXPECT_EQ(gone.ends, 0);
}

TYPED_TEST(StatusFeedContract, TellsOfTheEndOnce) {
  this->client().publish("1");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(this->other()));
  ASSERT_TRUE(this->comesTo(heard, {"1"}));
  this->endClient();
  EXPECT_TRUE(this->letPassUntil([&] { return heard.ends == 1; }));
  Heard late;
  EXPECT_FALSE(late.subscribeTo(this->other()));
}

TYPED_TEST(StatusFeedContract, MayBeLeftFromInsideACall) {
  this->client().publish("1");
  std::unique_ptr<StatusSubscription> subscription;
  int calls = 0;
  subscription = this->other().subscribe(
      [&](const std::string&) {
        ++calls;
        subscription.reset();
      },
      [&] { ++calls; });
  Heard watch;
  ASSERT_TRUE(watch.subscribeTo(this->other()));
  this->client().publish("2");
  ASSERT_TRUE(
      this->letPassUntil([&] { return !watch.lines.empty() && watch.lines.back() == "2" && calls > 0; }));
  EXPECT_EQ(calls, 1);
}

struct StatusSockets : ::testing::Test, RealFeed {
  bool hears(Heard& heard, const std::string& line) {
    return letPassUntil([&] { return !heard.lines.empty() && heard.lines.back() == line; });
  }
};

TEST_F(StatusSockets, AreTheUsersAlone) {
  clientFeed->publish("1");
  struct stat status {};
  ASSERT_EQ(lstat(path.c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  ASSERT_EQ(stat(folder.file("client").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST_F(StatusSockets, AreMadeWhereAnAddressHasNoRoomForThePath) {
  const std::string far = folder.file(std::string(100, 'a')) + "/" + std::string(100, 'b') + "/status";
  StatusSocket client(loop, far), asking(loop, far);
  client.publish("1");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(asking));
  EXPECT_TRUE(hears(heard, "1"));
}

TEST_F(StatusSockets, TakeThePlaceOfOnesThatAreDead) {
  clientFeed->publish("old");
  clientFeed.reset();
  ASSERT_TRUE(std::filesystem::exists(std::filesystem::symlink_status(path)));
  StatusSocket next(loop, path);
  next.publish("new");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(otherFeed));
  EXPECT_TRUE(hears(heard, "new"));
}

TEST_F(StatusSockets, TakeThePlaceOfALinkAndLeaveWhatItLeadsTo) {
  std::filesystem::create_directories(folder.file("client"));
  std::ofstream(folder.file("precious")) << "kept";
  std::filesystem::create_symlink(folder.file("precious"), path);
  clientFeed->publish("1");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(otherFeed));
  EXPECT_TRUE(hears(heard, "1"));
  std::string text;
  std::ifstream(folder.file("precious")) >> text;
  EXPECT_EQ(text, "kept");
}

TEST_F(StatusSockets, SayWhyTheyCannotBeMadeAndAreMadeLater) {
  std::filesystem::create_directories(path + "/in the way");
  {
    const StandardErrorText errors;
    clientFeed->publish("1");
    clientFeed->publish("2");
    EXPECT_EQ(errors.text(),
              "KestruneMenuClient: nobody can ask for the status by " + path + ": Address already in use\n");
  }
  std::filesystem::remove_all(path);
  clientFeed->publish("2");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(otherFeed));
  EXPECT_TRUE(hears(heard, "2"));
}

TEST_F(StatusSockets, AreMadeAnewWhereSomebodyHasRemovedThem) {
  clientFeed->publish("1");
  Heard before;
  ASSERT_TRUE(before.subscribeTo(otherFeed));
  ASSERT_TRUE(hears(before, "1"));
  std::filesystem::remove(path);
  clientFeed->publish("1");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(otherFeed));
  EXPECT_TRUE(hears(heard, "1"));
  clientFeed->publish("2");
  EXPECT_TRUE(hears(before, "2"));
  EXPECT_TRUE(hears(heard, "2"));
}

TEST_F(StatusSockets, AreLeftToAnotherClientAndTakenBackAfterIt) {
  clientFeed->publish("first");
  auto later = std::make_unique<StatusSocket>(loop, path);
  later->publish("second");
  clientFeed->publish("first again");
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(otherFeed));
  EXPECT_TRUE(hears(heard, "second"));
  later.reset();
  clientFeed->publish("first at last");
  Heard then;
  ASSERT_TRUE(then.subscribeTo(otherFeed));
  EXPECT_TRUE(hears(then, "first at last"));
}

TEST_F(StatusSockets, TakeThePlaceOfNothingElse) {
  std::filesystem::create_directories(folder.file("client"));
  std::ofstream(path) << "kept";
  {
    const StandardErrorText errors;
    clientFeed->publish("1");
  }
  std::string text;
  std::ifstream(path) >> text;
  EXPECT_EQ(text, "kept");
}

TEST_F(StatusSockets, AreNotMadeInAFolderOfAnotherUser) {
  // Only root can give a folder away, and everybody else has one of root's.
  std::string foreign = "/usr";
  if (geteuid() == 0) {
    foreign = folder.file("foreign");
    std::filesystem::create_directories(foreign);
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
  }
  StatusSocket client(loop, foreign + "/status");
  const StandardErrorText errors;
  client.publish("1");
  EXPECT_NE(errors.text().find("Operation not permitted"), std::string::npos) << errors.text();
  EXPECT_FALSE(std::filesystem::exists(foreign + "/status"));
}

TEST_F(StatusSockets, KnowTheProcessOfTheClient) {
  EXPECT_EQ(otherFeed.runningClient(), std::nullopt);
  clientFeed->publish("1");
  EXPECT_EQ(otherFeed.runningClient(), getpid());
}

TEST_F(StatusSockets, GiveUpASubscriberThatDoesNotListen) {
  clientFeed->publish("0");
  // Its loop does not run: what is sent stays where it is until there is no room.
  EventLoop stopped;
  StatusSocket asking(stopped, path);
  Heard deaf;
  ASSERT_TRUE(deaf.subscribeTo(asking));
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(otherFeed));
  ASSERT_TRUE(hears(heard, "0"));
  const std::string much(50000, 'x');
  for (int i = 0; i < 20; ++i) {
    const std::string line = std::to_string(i) + much;
    clientFeed->publish(line);
    ASSERT_TRUE(hears(heard, line));
  }
  stopped.runUntil([&] { return deaf.ends == 1; });
  EXPECT_LT(deaf.lines.size(), 20U);
}

TEST_F(StatusSockets, EndTheSubscriptionOfWhoeverSpeaks) {
  clientFeed->publish("1");
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(write(socket.get(), "hello\n", 6), 6);
  std::string all;
  ASSERT_TRUE(letPassUntil([&] {
    char bytes[64];
    const ssize_t count = recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (count > 0) all.append(bytes, static_cast<std::size_t>(count));
    return count == 0 || (count < 0 && errno == ECONNRESET);
  }));
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(otherFeed));
  EXPECT_TRUE(hears(heard, "1"));
}

TEST_F(StatusSockets, RestWhileThereAreNoDescriptorsAndGoOnThen) {
  clientFeed->publish("1");
  EventLoop elsewhere;
  StatusSocket asking(elsewhere, path);
  Heard heard;
  ASSERT_TRUE(heard.subscribeTo(asking));
  // The first timer of a loop takes a descriptor, and a client has long had one.
  loop.after(Seconds{60}, [] {});
  int turns = 0;
  {
    const FileDescriptor lowestFree(dup(STDIN_FILENO));
    const ResourceLimit none(RLIMIT_NOFILE, static_cast<rlim_t>(lowestFree.get()));
    const Seconds end = clock.awakeTime() + Seconds{0.2};
    loop.runUntil([&] {
      ++turns;
      // Something has to wake the loop.
      loop.mainQueue().asyncAfter(Seconds{0.05}, [] {});
      return clock.awakeTime() >= end;
    });
  }
  EXPECT_LT(turns, 50);
  ASSERT_TRUE(letPassUntil([&] {
    sd_event_run(elsewhere.event(), 0);
    return heard.lines == Lines{"1"};
  }));
}

TEST_F(StatusSockets, EndASubscriptionToAClientThatSaysNothing) {
  // Takes connections, and that is all.
  clientFeed->publish("1");
  EventLoop stopped;
  auto hung = std::make_unique<StatusSocket>(stopped, path);
  hung->publish("never said");
  Heard heard;
  const Seconds begin = clock.awakeTime();
  ASSERT_TRUE(heard.subscribeTo(otherFeed));
  ASSERT_TRUE(letPassUntil([&] { return heard.ends == 1; }));
  EXPECT_GE(clock.awakeTime() - begin, Seconds{1.9});
  EXPECT_TRUE(heard.lines.empty());
}

}  // namespace
}  // namespace kestrune::testing
