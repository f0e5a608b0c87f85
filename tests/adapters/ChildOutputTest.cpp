#include <gtest/gtest.h>

#include <sched.h>

#include <chrono>
#include <fstream>

#include "tests/adapters/RealChildren.h"
#include "tests/rig/ProcessEnd.h"

namespace kestrune::testing {
namespace {

constexpr std::size_t limit = std::size_t{16} << 20;
// A step that takes longer has waited for a descendant to close its pipe, which it holds open for 60 s.
constexpr Seconds generous{20.0};

struct ChildOutput : ::testing::Test, RealChildren {
  std::string outputOf(const Arguments& arguments) {
    const auto child = launch(arguments);
    std::string output = child->readOutput(patience);
    EXPECT_TRUE(ends(*child));
    return output;
  }
};

TEST_F(ChildOutput, StandardOutputComesBeforeStandardError) {
  EXPECT_EQ(outputOf({"err", "b\n", "out", "a\n", "err", "d\n", "out", "c\n"}), "a\nc\nb\nd\n");
}

/// Calls isRunning() repeatedly, as the client does, until `condition` holds; returns false if it never does.
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
  // Each write is just over half a page and so takes a page of the pipe: 16 pages are full after 32 KiB.
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

TEST_F(ChildOutput, OutputIsCutAtTheLimit) {
  for (const std::string more : {"0", "100000"}) {
    EXPECT_EQ(outputOf({"flood", std::to_string(limit), "flood", more}), std::string(limit, 'x')) << more;
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
  EXPECT_LT(duration, generous);
  EXPECT_TRUE(ends(*child));
  EXPECT_EQ(child->terminationStatus(), 0);
}

TEST_F(ChildOutput, ReadingEndsWithTheLastWriter) {
  const auto child = launchUpTo({"leave", "60"});
  const Seconds duration = durationOf([&] {
    child->terminateGroup();
    child->readOutput(Seconds{60});
  });
  EXPECT_LT(duration, generous);
  EXPECT_TRUE(ends(*child));
}

TEST_F(ChildOutput, ReadingStopsWhenADescendantWritesWithoutEnd) {
  for (const Seconds each : {Seconds{0}, Seconds{0.1}}) {
    const auto child = launch({"leave-flooding", "60"});
    ASSERT_TRUE(ends(*child));
    std::string output;
    EXPECT_LT(durationOf([&] { output = child->readOutput(each); }), generous);
    EXPECT_LE(output.size(), limit);
    // SIGPIPE ends the writing descendant, because readOutput has closed the read ends of its pipes.
    EXPECT_TRUE(kestrune::testing::ends(numberBehind(output, "left")));
  }
}

/// Returns this process's peak memory (VmHWM) in bytes. Writing 5 to /proc/self/clear_refs resets the peak.
std::size_t peakMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stoul(line.substr(6)) * 1024;
  }
  return 0;
}

TEST_F(ChildOutput, MemoryStaysBoundedWhenTheChildWritesMuch) {
  std::ofstream("/proc/self/clear_refs") << 5;
  const std::size_t before = peakMemory();
  ASSERT_GT(before, 0U);
  outputOf({"flood", "250000000"});
  EXPECT_LT(peakMemory() - before, 12 * limit);
}

}  // namespace
}  // namespace kestrune::testing
