#include <gtest/gtest.h>

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <filesystem>
#include <thread>

#include "adapters/children/LeftoverPipes.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/ProcessEnd.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;

/// Returns the number of pipe ends that are open in this process.
std::ptrdiff_t openPipes() {
  std::error_code ignored;
  return std::ranges::count_if(fs::directory_iterator("/proc/self/fd"), [&ignored](const auto& each) {
    return fs::read_symlink(each, ignored).string().starts_with("pipe:");
  });
}

struct LeftoverPipesTest : ::testing::Test {
  SignalState restored;
  EventLoop loop;
  LeftoverPipes leftovers{loop};

  /// Adds a pipe to `leftovers` and returns its write end.
  FileDescriptor leftoverPipe() {
    PipeEnds pipe;
    fcntl(pipe.reading.get(), F_SETFL, O_NONBLOCK);
    leftovers.add(std::move(pipe.reading));
    return std::move(pipe.writing);
  }

  /// Writes `size` bytes on another thread while the loop runs. Returns false if the read end is closed.
  bool canWrite(const FileDescriptor& end, std::size_t size) {
    std::atomic<bool> done = false;
    bool whole = true;
    std::thread writer([&] {
      const std::string page(4096, 'x');
      for (std::size_t left = size; whole && left > 0; left -= page.size()) {
        whole = write(end.get(), page.data(), page.size()) == static_cast<ssize_t>(page.size());
      }
      done = true;
    });
    EXPECT_TRUE(comesTrueElsewhere(loop, [&] { return done.load(); }));
    writer.join();
    return whole;
  }

  static bool isBroken(const FileDescriptor& end) {
    pollfd broken{end.get(), 0, 0};
    return poll(&broken, 1, 0) == 1;
  }
};

TEST_F(LeftoverPipesTest, WritersCanGoOnWriting) {
  FileDescriptor output, error;
  // In the client, a worker thread adds the pipes.
  std::thread([&] {
    output = leftoverPipe();
    error = leftoverPipe();
  }).join();
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(canWrite(output, std::size_t{1} << 17));
    EXPECT_TRUE(canWrite(error, std::size_t{1} << 17));
  }
}

TEST_F(LeftoverPipesTest, PipeIsClosedAfterItsLastWriter) {
  const auto before = openPipes();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(write(leftoverPipe().get(), "x", 1), 1);
  EXPECT_EQ(openPipes(), before + 3);
  EXPECT_TRUE(comesTrueElsewhere(loop, [before] { return openPipes() == before; }));
  EXPECT_TRUE(isIdle(loop));
}

TEST_F(LeftoverPipesTest, OldestPipeIsClosedBeyondTheLimit) {
  std::deque<FileDescriptor> writers;
  for (std::size_t i = 0; i < LeftoverPipes::limit; ++i) writers.push_back(leftoverPipe());
  EXPECT_FALSE(isBroken(writers.front()));
  const auto most = openPipes();
  for (int more = 0; more < 3; ++more) {
    writers.push_back(leftoverPipe());
    EXPECT_TRUE(isBroken(writers.front()));
    writers.pop_front();
    EXPECT_FALSE(isBroken(writers.front()));
  }
  EXPECT_EQ(openPipes(), most);
  EXPECT_TRUE(canWrite(writers.front(), std::size_t{1} << 18));
}

TEST_F(LeftoverPipesTest, EndlessWriterDoesNotKeepTheLoopBusy) {
  const FileDescriptor end = leftoverPipe();
  constexpr std::size_t pipeSize = 65536;
  constexpr int fills = 10;
  // The loop empties a pipe only once in 50 ms. So the writer must wait before each fill but the first two.
  EXPECT_GE(durationOf([&] { EXPECT_TRUE(canWrite(end, fills * pipeSize)); }), (fills - 2) * Seconds{0.05});
}

/// Launches children, and collects in `left` the pipes that their descendants still hold open.
struct LeftoversOfAChild : ::testing::Test, RealChildren {
  std::vector<FileDescriptor> left;
  ChildProcesses leaving{[this](FileDescriptor pipe) { left.push_back(std::move(pipe)); }};

  std::unique_ptr<Process> launch(const Arguments& arguments) {
    return std::move(*leaving.launch(TEST_CHILD, arguments));
  }
};

TEST_F(LeftoversOfAChild, PipesHeldByADescendantAreHandedOver) {
  const auto child = launch({"leave", "60"});
  ASSERT_TRUE(ends(*child));
  const Leftover descendant(numberBehind(child->readOutput(Seconds{0.05}), "left"));
  EXPECT_EQ(left.size(), 2U);
}

TEST_F(LeftoversOfAChild, PipesWithoutWritersAreNotHandedOver) {
  auto child = launch({"out", "x", "leave-session", "60"});
  ASSERT_TRUE(ends(*child));
  const Leftover service(numberBehind(child->readOutput(patience), "left"));
  child.reset();
  EXPECT_TRUE(left.empty());
}

TEST_F(LeftoversOfAChild, PipesOfAnAbandonedChildAreHandedOver) {
  launch({"ids", "pause"}).reset();
  ASSERT_EQ(left.size(), 2U);
  pollfd waiting{left[0].get(), POLLIN, 0};
  ASSERT_EQ(poll(&waiting, 1, patienceInMilliseconds), 1);
  std::string said(100, '\0');
  ASSERT_GT(read(left[0].get(), said.data(), said.size()), 0);
  const Leftover forgotten(numberBehind(said, "pid"));
  EXPECT_TRUE(forgotten.runs());
}

}  // namespace
}  // namespace kestrune::testing
