#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "adapters/terminal/StandardStreams.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

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
  std::stringstream contents;
  contents << std::ifstream(path).rdbuf();
  EXPECT_EQ(contents.str(), "before\nmenu\nbetween\nmenu again\n");
}

TEST_F(StandardOutputTo, APipeOrTerminalThatCannotBeOpenedAgainDoesNotBlock) {
  for (const int foreign : {pipe.writing.get(), terminal.inside.get()}) {
    ForkedProgram program([foreign](const ForkedProgram::Say& say) {
      // The descriptor can be written to, but its file cannot be opened again, as after setuid(2).
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
  EXPECT_TRUE(writer.write(std::string(2 * megabyte, 'x')))
      << "one that waits alone may be as long as it likes";
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

}  // namespace
}  // namespace kestrune::testing
