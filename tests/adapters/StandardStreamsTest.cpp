#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <optional>
#include <string>

#include "adapters/system/System.h"
#include "adapters/terminal/StandardStreams.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/Namespaces.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/StandardErrorText.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

constexpr auto tooLong = "(too long)";

struct StandardInputOn : ::testing::Test {
  /// Constructs `input` while `descriptor` is standard input. Calls `input->start` only if `start` is true.
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

TEST_F(StandardInputOn, ASocketDoesNotBlockTheLoop) {
  int both[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both), 0);
  const FileDescriptor inside(both[0]);
  FileDescriptor outside(both[1]);
  read(inside.get());
  put(outside, "one\ntwo");
  settleQueue(loop);  // would hang
  EXPECT_EQ(lines, Lines{"one"});
  outside.reset();
  ASSERT_TRUE(ended());
  EXPECT_EQ(lines, (Lines{"one", "two"}));
}

TEST_F(StandardInputOn, APipeIsRestoredForTheNextProgram) {
  read(pipe.reading.get(), false);
  put(pipe.writing, "for the next\n");
  const FileDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const StandardStreams streams(nothing.get(), STDERR_FILENO);
  input->restore();
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
  for (const int descriptor : {pipe.reading.get(), terminal.inside.get(), nothing.get(), folder.get()}) {
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
  for (const int descriptor : {pipe.reading.get(), terminal.inside.get()}) {
    read(descriptor, false);
    ASSERT_TRUE(left.has_value()) << "a child would take the first file that it opens for its standard input";
    EXPECT_EQ(left->st_rdev, makedev(1, 3));
    EXPECT_TRUE(childrenFindTheEnd);
  }
}

constexpr std::size_t megabyte = std::size_t{1} << 20;

std::string numberedLines(int count) {
  std::string text;
  for (int line = 0; line < count; ++line) text += "line " + std::to_string(line) + "\n";
  return text;
}

struct StandardOutputTo : ::testing::Test {
  EventLoop loop;
  PipeEnds pipe;
  PseudoTerminal terminal;
};

TEST_F(StandardOutputTo, APipeGetsTheWholeTextInOrder) {
  StandardOutput output(loop, pipe.writing.get());
  EXPECT_FALSE(output.isTerminal());
  EXPECT_EQ(fcntl(pipe.writing.get(), F_GETFL) & O_NONBLOCK, 0) << "others share it";
  Screen screen(loop, pipe.reading.get());
  const std::string text = numberedLines(40000);
  for (std::size_t at = 0; at < text.size(); at += 5000)
    output.write(std::string_view(text).substr(at, 5000));
  EXPECT_TRUE(comesTrue(loop, [&] { return screen.text.size() >= text.size(); }));
  EXPECT_TRUE(screen.text == text);
}

TEST_F(StandardOutputTo, AFileGetsTheTextAfterWhatOthersWrote) {
  const ScratchFolder folder;
  const std::string path = folder.file("log");
  const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(write(file.get(), "before\n", 7), 7);
  StandardOutput output(loop, file.get());
  EXPECT_FALSE(output.isTerminal());
  output.write("menu\n");
  ASSERT_EQ(write(file.get(), "between\n", 8), 8);
  output.write("menu again\n");
  EXPECT_EQ(contentsOf(path), "before\nmenu\nbetween\nmenu again\n");
}

TEST_F(StandardOutputTo, APipeOrTerminalThatCannotBeOpenedAgainDoesNotBlock) {
  for (const int foreign : {pipe.writing.get(), terminal.inside.get()}) {
    ForkedProgram program([foreign](const ForkedProgram::Say& say) {
      // After fchmod and setresuid, this process can use the descriptor, but cannot open its file again.
      fchmod(foreign, 0);
      constexpr uid_t nobody = 65534;
      if (geteuid() == 0 && setresuid(nobody, nobody, nobody) != 0) say("is still root");
      EventLoop ownLoop;
      StandardOutput output(ownLoop, foreign);
      for (int time = 0; time < 200; ++time) output.write(std::string(2000, 'x'));
      say("goes on");
    });
    EXPECT_EQ(program.line(), "goes on");
  }
}

TEST_F(StandardOutputTo, AFullDiskOrAClosedDescriptorOrReaderIsIgnored) {
  const FileDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  const int closed = fcntl(pipe.writing.get(), F_DUPFD_CLOEXEC, 100);
  close(closed);
  pipe.reading.reset();
  for (const int descriptor : {full.get(), closed, pipe.writing.get()}) {
    StandardOutput output(loop, descriptor);
    output.write("one\n");
    output.write("two\n");
    settleQueue(loop);
    EXPECT_FALSE(output.isTerminal());
  }
}

TEST_F(StandardOutputTo, AFullDiskIsWrittenAgainWhenThereIsSpace) {
  requireNamespaces("--mount");
  const ScratchFolder folder;
  ForkedProgram program([&folder](const ForkedProgram::Say& say) {
    if (!enterMountNamespace() || mount("none", folder.file(".").c_str(), "tmpfs", 0, "size=4k") != 0) {
      return say("no disk");
    }
    EventLoop own;
    const FileDescriptor file(open(folder.file("log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
    StandardOutput output(own, file.get());
    say(output.write(std::string(4096, 'x')) ? "written" : "dropped");
    say(output.write("lost") ? "written" : "dropped");
    say(ftruncate(file.get(), 0) == 0 && output.write("kept") ? "written" : "dropped");
    say(contentsOf(folder.file("log")));
  });
  for (const char* const said : {"written", "dropped", "written", "kept"}) EXPECT_EQ(program.line(), said);
}

TEST_F(StandardOutputTo, AFullPipeLeavesTheLoopIdle) {
  StandardOutput output(loop, pipe.writing.get());
  output.write(std::string(megabyte / 2, 'x'));
  EXPECT_TRUE(isIdle(loop)) << "while the pipe is full";
  Screen screen(loop, pipe.reading.get());
  ASSERT_TRUE(comesTrue(loop, [&screen] { return screen.text.size() == megabyte / 2; }));
  EXPECT_TRUE(isIdle(loop)) << "when all is read";
  output.write(std::string(megabyte / 2, 'x'));
  screen.close();
  pipe.reading.reset();
  EXPECT_TRUE(isIdle(loop)) << "when the reader is gone";
}

TEST_F(StandardOutputTo, ASocketGetsTheWholeTextAndItsLostReaderIsNoError) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  // Other processes may share the socket, and O_NONBLOCK would apply to them. So it must not be set.
  const FileDescriptor inside(ends[0]);
  FileDescriptor outside(ends[1]);
  StandardOutput output(loop, inside.get());
  const std::string text = numberedLines(40000);
  output.write(text);
  EXPECT_EQ(fcntl(inside.get(), F_GETFL) & O_NONBLOCK, 0) << "others share it";
  {
    Screen screen(loop, outside.get());
    EXPECT_TRUE(comesTrue(loop, [&] { return screen.text.size() >= text.size(); }));
    EXPECT_TRUE(screen.text == text);
  }
  output.write(std::string(megabyte, 'x'));
  outside.reset();
  EXPECT_TRUE(isIdle(loop));
  output.write("two\n");
  EXPECT_TRUE(isIdle(loop));
}

TEST_F(StandardOutputTo, AWriterReportsADroppedText) {
  DescriptorWriter writer(loop, FileDescriptor(fcntl(pipe.writing.get(), F_DUPFD_CLOEXEC, 3)), megabyte);
  EXPECT_TRUE(writer.write("one\n"));
  EXPECT_TRUE(writer.write(std::string(2 * megabyte, 'x'))) << "one that waits alone may have any length";
  EXPECT_FALSE(writer.write("two\n"));
  EXPECT_EQ(errno, ENOBUFS);
  {
    Screen screen(loop, pipe.reading.get());
    ASSERT_TRUE(comesTrue(loop, [&screen] { return screen.text.size() == 4 + 2 * megabyte; }));
  }
  EXPECT_TRUE(writer.write("three\n"));
  pipe.reading.reset();
  for (const char* const text : {"four\n", "five\n"}) {
    errno = 0;
    EXPECT_FALSE(writer.write(text));
    EXPECT_EQ(errno, EPIPE);
  }
}

TEST_F(StandardOutputTo, AWriterLimitsOnlyTheUnwrittenText) {
  DescriptorWriter writer(loop, FileDescriptor(fcntl(pipe.writing.get(), F_DUPFD_CLOEXEC, 3)), megabyte);
  std::string expected;
  Screen screen(loop, pipe.reading.get());
  for (int part = 0; part < 5; ++part) {
    const std::string text(megabyte - 1, static_cast<char>('a' + part));
    expected += text;
    ASSERT_TRUE(writer.write(text)) << part;
    ASSERT_TRUE(comesTrue(loop, [&] { return screen.text.size() > expected.size() - megabyte / 4; }));
    EXPECT_FALSE(writer.write(std::string(megabyte, '-'))) << part;
    ASSERT_TRUE(comesTrue(loop, [&] { return screen.text.size() == expected.size(); }));
  }
  EXPECT_TRUE(screen.text == expected);
}

TEST(ReportOnce, EachMessageIsPrintedOnce) {
  const StandardErrorText errors;
  for (const char* const message : {"a", "b", "a"}) reportOnce(message);
  EXPECT_EQ(errors.text(), "KestruneMenuClient: a\nKestruneMenuClient: b\n");
}

TEST(ReportOnce, DoesNotBlockWhileNobodyReads) {
  const StandardErrorText restored;
  const PipeEnds pipe;
  fcntl(pipe.writing.get(), F_SETFL, O_NONBLOCK);
  char piece[4096] = {};
  while (write(pipe.writing.get(), piece, sizeof piece) > 0) {
  }
  fcntl(pipe.writing.get(), F_SETFL, 0);
  dup2(pipe.writing.get(), STDERR_FILENO);
  reportOnce("held up");
  // The pipe was full, so the `reportOnce` above has printed nothing. After the pipe is emptied, the next
  // `reportOnce` must print the message.
  fcntl(pipe.reading.get(), F_SETFL, O_NONBLOCK);
  while (read(pipe.reading.get(), piece, sizeof piece) > 0) {
  }
  reportOnce("held up");
  const ssize_t count = read(pipe.reading.get(), piece, sizeof piece);
  ASSERT_GT(count, 0);
  EXPECT_EQ(std::string(piece, static_cast<std::size_t>(count)), "KestruneMenuClient: held up\n");
}

}  // namespace
}  // namespace kestrune::testing
