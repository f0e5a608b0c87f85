#include "adapters/instance/RequestServer.h"

#include <sys/stat.h>
#include <unistd.h>

#include "tests/adapters/Instances.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/ResourceLimit.h"

namespace kestrune::testing {
namespace {

struct RequestServerTest : ::testing::Test, Instances {
  RequestServerTest() {
    std::filesystem::create_directories(place);
    EXPECT_FALSE(server.listen(place));
    server.onPerform([this](const std::string& action) -> Result<> {
      asked.push_back("perform:" + action);
      if (whilePerforming) whilePerforming();
      if (action == "quit") return Done{};
      return Failure{"no such row"};
    });
  }

  std::unique_ptr<RawPeer> peer(const std::string& text) {
    auto made = std::make_unique<RawPeer>(loop, place);
    made->say(text);
    return made;
  }
  /// Sends `request` as another process would, and returns the answer.
  std::string answer(const std::string& request) {
    const auto asking = peer(request + "\n");
    comesTrue(loop, [&] { return asking->read(), asking->text.ends_with('\n') || asking->hasEnded; });
    return asking->text;
  }

  void publish(const std::string& line) {
    server.publish([line] { return line; });
  }

  std::vector<std::string> asked;
  std::function<void()> whilePerforming;
  RequestServer server{loop, [this](const std::string& token) { asked.push_back("show:" + token); }};
};

TEST_F(RequestServerTest, LinesAreAnsweredInOrder) {
  const auto asking = peer("show a token\nnothing\nperf");
  ASSERT_TRUE(asking->hears("ok\nerror unknown request\n"));
  asking->say("orm quit\nperform fly\nshow 2");
  ASSERT_TRUE(asking->hears("ok\nerror unknown request\nok\nerror no such row\n"));
  EXPECT_EQ(asked, (std::vector<std::string>{"show:a token", "perform:quit", "perform:fly"}));
  peer("show of one that has left\n").reset();
  EXPECT_TRUE(comesTrue(loop, [&] { return asked.size() == 4; }));
}

TEST_F(RequestServerTest, PerformIsIgnoredIfThePeerHasClosedTheConnection) {
  peer("perform quit\n").reset();
  const auto later = peer("show 1\n");
  ASSERT_TRUE(later->hears("ok\n"));
  EXPECT_EQ(asked, (std::vector<std::string>{"show:1"}));
}

TEST_F(RequestServerTest, UnknownRequestIsAnError) {
  for (const std::string request :
       {"", " ", "Show", "showing", " show", "quit", "GET / HTTP/1.1\r", "\xff"}) {
    EXPECT_EQ(answer(request), "error unknown request\n") << request;
  }
  EXPECT_TRUE(asked.empty());
}

TEST_F(RequestServerTest, StatusGetsOneLineAndFollowGetsEachNewLine) {
  const auto once = peer("status\n"), always = peer("follow\n");
  publish("1");
  EXPECT_TRUE(once->hears("1\n"));
  EXPECT_TRUE(always->hears("1\n"));
  publish("2");
  EXPECT_TRUE(always->hears("1\n2\n"));
  EXPECT_EQ(answer("status"), "2\n");
  EXPECT_TRUE(once->hears("1\n"));
}

TEST_F(RequestServerTest, PeerWithATooLongLineIsDisconnected) {
  const auto endless = peer(std::string(100000, 'x'));
  EXPECT_TRUE(endless->isDisconnected());
  EXPECT_EQ(answer("show"), "ok\n");
}

TEST_F(RequestServerTest, PeerThatDoesNotReadIsDisconnected) {
  const auto deaf = peer("follow\n"), listening = peer("follow\n");
  std::string said;
  for (int i = 0; i < 20; ++i) {
    const std::string line = std::to_string(i) + std::string(50000, 'x');
    publish(line);
    said += line + "\n";
    ASSERT_TRUE(listening->hears(said));
  }
  EXPECT_TRUE(deaf->isDisconnected());
  EXPECT_LT(deaf->text.size(), said.size());
}

TEST_F(RequestServerTest, PeerMayBeDisconnectedDuringItsRequest) {
  whilePerforming = [&] {
    for (int i = 0; i < 20; ++i) publish(std::to_string(i) + std::string(50000, 'x'));
  };
  const auto asking = peer("follow\nperform quit\nshow\n");
  EXPECT_TRUE(asking->isDisconnected());
  EXPECT_EQ(asked, std::vector<std::string>{"perform:quit"});
}

TEST_F(RequestServerTest, OldestPeerIsDisconnectedBeyondTheLimit) {
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int i = 0; i < 70; ++i) {
    peers.push_back(peer("status\n"));
    settleQueue(loop);
  }
  publish("1");
  EXPECT_TRUE(peers.back()->hears("1\n"));
  EXPECT_TRUE(peers.front()->isDisconnected());
  EXPECT_EQ(peers.front()->text, "");
}

TEST_F(RequestServerTest, PeerOfAnotherUserIsDisconnected) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  // Let all users open the socket, so that only the check of the user ID can refuse the other user.
  for (std::filesystem::path each = socket; each != "/tmp"; each = each.parent_path())
    chmod(each.c_str(), 0777);
  ForkedProgram stranger([this](const ForkedProgram::Say& say) {
    if (setuid(65534) != 0) return say("still root");
    EventLoop own;
    RawPeer asking(own, place);
    asking.say("show\n");
    say(asking.isDisconnected() ? "refused" + asking.text : "answered");
  });
  ASSERT_TRUE(letPassUntil([&] { return !stranger.isSilent(); }));
  EXPECT_EQ(stranger.line(), "refused");
  EXPECT_TRUE(asked.empty());
}

TEST_F(RequestServerTest, PathLongerThanSunPathWorks) {
  const std::string far = folder.file(std::string(100, 'a')) + "/" + std::string(100, 'b');
  std::filesystem::create_directories(far);
  ASSERT_FALSE(server.listen(far));
  RawPeer asking(loop, far);
  asking.say("show\n");
  EXPECT_TRUE(asking.hears("ok\n"));
}

TEST_F(RequestServerTest, DeadSocketOrLinkIsReplaced) {
  put(folder.file("precious"), "kept");
  std::filesystem::remove(socket);
  std::filesystem::create_symlink(folder.file("precious"), socket);
  for (int i = 0; i < 2; ++i) {
    ASSERT_FALSE(server.listen(place));
    EXPECT_EQ(answer("show"), "ok\n");
    RequestServer dead(loop, nullptr);
    ASSERT_FALSE(dead.listen(place));
  }
  EXPECT_EQ(contentsOf(folder.file("precious")), "kept");
}

TEST_F(RequestServerTest, FailedListenHasTheErrno) {
  std::filesystem::remove(socket);
  std::filesystem::create_directories(socket + "/in the way");
  EXPECT_EQ(server.listen(place), std::errc::is_a_directory);
  EXPECT_FALSE(server.isInPlace());
  EXPECT_EQ(server.listen(folder.file("nowhere")), std::errc::no_such_file_or_directory);
}

TEST_F(RequestServerTest, PollingPausesWithoutDescriptors) {
  const auto asking = peer("show\n");
  // These timers make the loop open its timerfds now. Later, the resource limit `none` prevents this process
  // from opening descriptors.
  loop.after(Seconds{60}, [] {});
  loop.scheduleRepeating(Seconds{60}, [] {});
  int turns = 0;
  {
    const FileDescriptor lowestFree(dup(STDIN_FILENO));
    const ResourceLimit none(RLIMIT_NOFILE, static_cast<rlim_t>(lowestFree.get()));
    const Seconds end = clock.awakeTime() + Seconds{0.2};
    loop.runUntil([&] {
      ++turns;
      // This job wakes the loop after 0.05 s, so that the condition below is evaluated again.
      loop.mainQueue().asyncAfter(Seconds{0.05}, [] {});
      return clock.awakeTime() >= end;
    });
  }
  EXPECT_LT(turns, 50);
  EXPECT_TRUE(asking->hears("ok\n"));
}

}  // namespace
}  // namespace kestrune::testing
