#include <poll.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <thread>

#include "adapters/children/LeftoverPipes.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/Memory.h"
#include "tests/rig/ProcessEnd.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

constexpr std::size_t limit = std::size_t{16} << 20;
// The time limit of each measured call. A call that waits for a descendant exceeds this limit, because the
// descendants live for 60 s.
constexpr Seconds callLimit{20.0};

struct ChildOutput : ::testing::Test, RealChildren {};

TEST_F(ChildOutput, StandardOutputComesBeforeStandardError) {
  EXPECT_EQ(outputOf({"err", "b\n", "out", "a\n", "err", "d\n", "out", "c\n"}), "a\nc\nb\nd\n");
}

/// Calls isRunning() repeatedly, as the client does, until `condition` holds, the child ends or the time
/// limit is reached. Returns whether `condition` holds.
bool comesTrueWhileWatched(Process& child, const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (child.isRunning() && !condition() && std::chrono::steady_clock::now() < deadline) sched_yield();
  return condition();
}

bool endsWhileWatched(Process& child) {
  return comesTrueWhileWatched(child, [&child] { return !child.isRunning(); });
}

TEST_F(ChildOutput, ChildCanWrite64KiBToASmallPipe) {
  for (const char* const size : {"4096", "8192", "65536"}) {
    const auto child = launch({"narrow", size, "flood", "65536", "of", "y", "flood-err", "65536"});
    EXPECT_TRUE(endsWhileWatched(*child)) << size;
    EXPECT_EQ(child->readOutput(Seconds{0}), std::string(65536, 'x') + std::string(65536, 'y')) << size;
  }
}

TEST_F(ChildOutput, ChildCanWrite64KiBInSmallWrites) {
  // A pipe has 16 pages (64 KiB). Each write is just over half a page, but takes a whole page. So the pipe is
  // full after 32 KiB of text.
  const std::string half(2049, 'x');
  Arguments arguments;
  for (std::size_t size = 0; size + half.size() <= 65536; size += half.size()) {
    arguments.insert(arguments.end(), {"out", half});
  }
  const auto child = launch(arguments);
  EXPECT_TRUE(endsWhileWatched(*child));
  EXPECT_EQ(child->readOutput(Seconds{0}).size(), arguments.size() / 2 * half.size());
}

TEST_F(ChildOutput, ChildBlocksAfter64KiBAndAPage) {
  for (const std::string size : {"4096", "8192", "65536"}) {
    const Milestone written(folder.file(size));
    const auto child = launch({"narrow", size, "flood", "65536", "touch", written.path, "flood", "1000000"});
    ASSERT_TRUE(comesTrueWhileWatched(*child, [&] { return written.isReached(Seconds{0}); })) << size;
    for (int look = 0; look < 5000; ++look) {
      ASSERT_TRUE(child->isRunning()) << size;
      sched_yield();
    }
    child->terminate();
    ASSERT_TRUE(ends(*child));
    EXPECT_LE(child->readOutput(Seconds{0}).size(), 65536U + 4096U) << size;
  }
}

TEST_F(ChildOutput, OutputIsCutBetweenCharacters) {
  for (const std::string character : {"é", "字", "🟢"}) {
    // Because of the `x`, the limit falls in the middle of a character of 2 or 4 bytes.
    const std::string output = outputOf({"out", "x", "of", character, "flood", std::to_string(limit)});
    const std::size_t whole = (limit - 1) / character.size();
    EXPECT_EQ(output.size(), 1 + whole * character.size()) << character;
    EXPECT_TRUE(output.ends_with(character)) << character;
  }
}

TEST_F(ChildOutput, StandardErrorGetsWhatStandardOutputLeavesOfTheLimit) {
  const std::string output = outputOf({"flood", "10000000", "of", "字", "flood-err", "12000000"});
  EXPECT_EQ(output.substr(0, 10000000), std::string(10000000, 'x'));
  EXPECT_EQ(output.size(), 10000000 + (limit - 10000000) / 3 * 3);
  EXPECT_TRUE(output.ends_with("字"));
}

TEST_F(ChildOutput, ReadingStopsAfterThePatienceWhenADescendantHoldsThePipe) {
  const auto child = launchUpTo({"out", "x\n", "leave", "60", "err", "y\n"}, {});
  std::string output;
  const Seconds duration = durationOf([&] { output = child->readOutput(Seconds{0.1}); });
  const Leftover descendant(numberBehind(output, "left"));
  EXPECT_TRUE(descendant.runs());
  EXPECT_TRUE(output.starts_with("x\nleft ")) << output;
  EXPECT_TRUE(output.ends_with("\ny\n")) << output;
  EXPECT_GE(duration, Seconds{0.1});
  EXPECT_LT(duration, callLimit);
  EXPECT_TRUE(ends(*child));
  EXPECT_EQ(child->terminationStatus(), 0);
}

TEST_F(ChildOutput, ReadingEndsWithTheLastWriter) {
  const auto child = launchUpTo({"leave", "60"});
  const Seconds duration = durationOf([&] {
    child->terminateGroup();
    child->readOutput(Seconds{60});
  });
  EXPECT_LT(duration, callLimit);
  EXPECT_TRUE(ends(*child));
}

TEST_F(ChildOutput, ReadingStopsWhenADescendantWritesWithoutEnd) {
  for (const Seconds each : {Seconds{0}, Seconds{0.1}}) {
    const auto child = launch({"leave-flooding", "60"});
    ASSERT_TRUE(ends(*child));
    std::string output;
    EXPECT_LT(durationOf([&] { output = child->readOutput(each); }), callLimit);
    EXPECT_LE(output.size(), limit);
    // `processes` was constructed without the callback that takes over pipes which a descendant holds open.
    // So `readOutput` has closed the read ends. SIGPIPE ends the descendant when it writes to a pipe.
    EXPECT_TRUE(kestrune::testing::ends(numberBehind(output, "left")));
  }
}

TEST_F(ChildOutput, MemoryStaysBoundedWhenTheChildWritesMuch) {
  EXPECT_LT(peakMemoryOf([this] { outputOf({"flood", "250000000"}); }), 12 * limit);
}

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

  /// Makes a pipe, adds its read end to `leftovers`, and returns its write end.
  FileDescriptor leftoverPipe() {
    PipeEnds pipe;
    fcntl(pipe.reading.get(), F_SETFL, O_NONBLOCK);
    leftovers.add(std::move(pipe.reading));
    return std::move(pipe.writing);
  }

  /// Writes `size` bytes to `end` on another thread, while the loop runs. Returns false if a write fails.
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
  // Add the pipes to `leftovers` on another thread, as the client does.
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
  settleQueue(loop);
  EXPECT_FALSE(isBroken(writers.front()));
  const auto most = openPipes();
  for (int more = 0; more < 3; ++more) {
    writers.push_back(leftoverPipe());
    settleQueue(loop);
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
  // The loop reads at most `pipeSize` bytes at a time, and then pauses for 50 ms. When the writer has
  // finished, the pipe may still hold `pipeSize` bytes. So the loop has read at least `fills - 1` times, with
  // `fills - 2` pauses between the reads.
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
