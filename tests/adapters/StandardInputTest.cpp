#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <fstream>
#include <optional>

#include "adapters/terminal/StandardStreams.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

constexpr auto tooLong = "(too long)";

struct StandardInputOn : ::testing::Test {
  /// Makes an input that reads `descriptor` as standard input; -1 means that standard input is closed.
  void read(int descriptor, bool start = true) {
    {
      const StandardStreams streams(descriptor, STDERR_FILENO);
      input.emplace(loop);
      left.reset();
      struct stat state {};
      if (fstat(STDIN_FILENO, &state) == 0) left = state;
      char byte = 0;
      childrenFindTheEnd = ::read(STDIN_FILENO, &byte, 1) == 0;
    }
    if (start) begin();
  }
  void begin() {
    input->start({.onLine = [this](const auto& line) { lines.push_back(line.value_or(tooLong)); },
                  .onEnd = [this] { ++ends; }});
  }
  bool ended() {
    return comesTrue(loop, [this] { return ends > 0; });
  }
  static void put(const FileDescriptor& descriptor, std::string_view text) {
    ASSERT_EQ(write(descriptor.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  EventLoop loop;
  PipeEnds pipe;
  std::optional<StandardInput> input;
  std::optional<struct stat> left;  ///< fstat of standard input after `input` was made; absent if closed
  bool childrenFindTheEnd = false;
  Lines lines;
  int ends = 0;
};

TEST_F(StandardInputOn, APipeIsGivenBackToWhoeverTakesOver) {
  read(pipe.reading.get(), false);
  put(pipe.writing, "for the next\n");
  const FileDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const StandardStreams streams(nothing.get(), STDERR_FILENO);
  input->giveBack();
  char buffer[64];
  const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
  ASSERT_GT(count, 0);
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(count)), "for the next\n");
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), 0) << "must be one that stays open";
}

TEST_F(StandardInputOn, APipeGivesLinesAndOneEnd) {
  read(pipe.reading.get());
  EXPECT_EQ(fcntl(pipe.reading.get(), F_GETFL) & O_NONBLOCK, 0) << "others share it";
  put(pipe.writing, "one\n\ntwo\nthree\nlast");
  settleQueue(loop);
  EXPECT_EQ(lines, (Lines{"one", "", "two", "three"}));
  pipe.writing.reset();
  ASSERT_TRUE(ended());
  settleQueue(loop);
  EXPECT_EQ(lines.back(), "last");
  EXPECT_EQ(ends, 1);
  EXPECT_FALSE(input->isTerminal());
}

TEST_F(StandardInputOn, APipeGivesALineOf65536BytesAndNoneThatIsLonger) {
  read(pipe.reading.get());
  const auto type = [this](std::string_view text) {
    while (!text.empty()) {
      const std::string_view piece = text.substr(0, 10000);
      put(pipe.writing, piece);
      text.remove_prefix(piece.size());
      ASSERT_TRUE(comesTrue(loop, [this] {
        int waiting = 0;
        return ioctl(pipe.reading.get(), FIONREAD, &waiting) == 0 && waiting == 0;
      }));
    }
  };
  const std::string longest(65536, 'x');
  type(longest + "\n" + longest + "x\nnext\n" + std::string(1'000'000, 'x') + "\nlast\n" + longest + "x");
  pipe.writing.reset();
  ASSERT_TRUE(ended());
  EXPECT_EQ(lines, (Lines{longest, tooLong, "next", tooLong, "last", tooLong}));
}

TEST_F(StandardInputOn, AnEndlessPipeDoesNotStarveTheLoop) {
  ForkedProgram flood([this](const ForkedProgram::Say&) {
    pipe.reading.reset();
    std::string block;
    while (block.size() < 65536) block += "x\n";
    while (write(pipe.writing.get(), block.data(), block.size()) > 0) {
    }
  });
  ForkedProgram reader([this](const ForkedProgram::Say& say) {
    pipe.writing.reset();
    EventLoop ownLoop;
    const StandardStreams streams(pipe.reading.get(), STDERR_FILENO);
    StandardInput endless(ownLoop);
    bool due = false;
    const EventSource alarm = ownLoop.after(Seconds{0.05}, [&due] { due = true; });
    endless.start({.onLine = [](const auto&) {}, .onEnd = [] {}});
    ownLoop.runUntil([&due] { return due; });
    say("in time");
  });
  EXPECT_EQ(reader.line(), "in time");
}

TEST_F(StandardInputOn, ATerminalGivesLinesUntilTheUserEndsIt) {
  const PseudoTerminal terminal;
  read(terminal.inside.get());
  EXPECT_TRUE(input->isTerminal());
  EXPECT_EQ(fcntl(terminal.inside.get(), F_GETFL) & O_NONBLOCK, 0) << "others share it";
  put(terminal.outside, "one\ntw");
  ASSERT_TRUE(comesTrue(loop, [this] { return lines.size() == 1; }));
  put(terminal.outside, "o\n\x04");
  ASSERT_TRUE(ended());
  EXPECT_EQ(lines, (Lines{"one", "two"}));
}

TEST_F(StandardInputOn, ATerminalGivesNoLineThatTheKernelMayHaveCut) {
  const PseudoTerminal terminal;
  read(terminal.inside.get());
  const std::string longest(4094, 'x');
  // Ctrl-D (\x04) makes the terminal deliver the text typed so far, without a line end.
  const std::string passedOn = "\x04";
  for (const auto& typed :
       {longest, longest + "x", std::string(20000, 'x'), longest + "x" + passedOn + "rest",
        "start" + passedOn + longest + "x", std::string("next")}) {
    const std::size_t before = lines.size();
    put(terminal.outside, typed + "\n");
    ASSERT_TRUE(comesTrue(loop, [&] { return lines.size() > before; }));
  }
  EXPECT_EQ(lines, (Lines{longest, tooLong, tooLong, tooLong, tooLong, "next"}));
}

TEST_F(StandardInputOn, AFileGivesItsLinesAndAnEnd) {
  const ScratchFolder folder;
  std::string longLine(10000, 'y');
  std::ofstream(folder.file("commands")) << "one\n" << longLine << "\nlast";
  const FileDescriptor file(open(folder.file("commands").c_str(), O_RDONLY | O_CLOEXEC));
  read(file.get());
  EXPECT_EQ(lines, Lines{}) << "nothing comes before the loop runs";
  ASSERT_TRUE(ended());
  settleQueue(loop);
  EXPECT_EQ(lines, (Lines{"one", longLine, "last"}));
  EXPECT_EQ(ends, 1);
}

TEST_F(StandardInputOn, AnythingEndsOnceAndLeavesTheLoopIdle) {
  pipe.writing.reset();
  PseudoTerminal terminal;
  terminal.outside.reset();
  const FileDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const FileDescriptor folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const int descriptor : {pipe.reading.get(), terminal.inside.get(), nothing.get(), folder.get(), -1}) {
    ends = 0;
    read(descriptor);
    EXPECT_EQ(ends, 0) << "nothing comes before the loop runs";
    ASSERT_TRUE(ended());
    settleQueue(loop);
    EXPECT_EQ(ends, 1);
    EXPECT_TRUE(isIdle(loop));
  }
  EXPECT_EQ(lines, Lines{});
}

TEST_F(StandardInputOn, AnythingLeavesDevNullForChildren) {
  const PseudoTerminal terminal;
  for (const int descriptor : {pipe.reading.get(), terminal.inside.get(), -1}) {
    read(descriptor, false);
    ASSERT_TRUE(left.has_value()) << "a child would take the first file that it opens for its standard input";
    EXPECT_EQ(left->st_rdev, makedev(1, 3));
    EXPECT_TRUE(childrenFindTheEnd);
  }
}

}  // namespace
}  // namespace kestrune::testing
