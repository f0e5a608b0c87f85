#pragma once

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "adapters/system/System.h"
#include "adapters/terminal/TerminalFace.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ForkedProgram.h"

namespace kestrune::testing {

/// Replaces standard input and output by descriptors; -1 closes the stream. The destructor restores both.
class StandardStreams {
 public:
  StandardStreams(int input, int output)
      : oldInput(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10)),
        oldOutput(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10)) {
    put(input, STDIN_FILENO);
    put(output, STDOUT_FILENO);
  }
  ~StandardStreams() {
    put(oldInput.get(), STDIN_FILENO);
    put(oldOutput.get(), STDOUT_FILENO);
  }
  StandardStreams(const StandardStreams&) = delete;
  StandardStreams& operator=(const StandardStreams&) = delete;

 private:
  static void put(int descriptor, int place) {
    if (descriptor >= 0) {
      dup2(descriptor, place);
    } else {
      ::close(place);
    }
  }

  const FileDescriptor oldInput;
  const FileDescriptor oldOutput;
};

struct PseudoTerminal {
  PseudoTerminal() {
    int ends[2];
    if (openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) != 0) throw std::runtime_error("no terminal");
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
    outside.reset(ends[0]);
    inside.reset(ends[1]);
  }
  bool isEchoed() const { return (settings().c_lflag & ECHO) != 0; }
  void setEcho(bool on) const {
    termios changed = settings();
    changed.c_lflag = on ? changed.c_lflag | ECHO : changed.c_lflag & ~tcflag_t{ECHO};
    tcsetattr(inside.get(), TCSANOW, &changed);
  }
  termios settings() const {
    termios found{};
    tcgetattr(inside.get(), &found);
    return found;
  }
  FileDescriptor outside;  ///< the master: the test's keyboard and screen
  FileDescriptor inside;   ///< the slave: standard input and output of the program
};

/// Collects the text that can be read from a descriptor: the output of a program.
class Screen {
 public:
  Screen(EventLoop& givenLoop, int givenDescriptor)
      : loop(givenLoop), descriptor(fcntl(givenDescriptor, F_DUPFD_CLOEXEC, 3)) {
    fcntl(descriptor.get(), F_SETFL, fcntl(descriptor.get(), F_GETFL) | O_NONBLOCK);
    readable = loop.onDescriptor(descriptor.get(), EPOLLIN, [this] { read(); });
  }

  void close() {
    readable.reset();
    descriptor.reset();
  }

  /// Waits until `part` is on the screen. Returns false at the time limit.
  bool shows(std::string_view part) {
    return comesTrue(loop, [this, part] { return text.find(part) != std::string::npos; });
  }
  std::size_t count(std::string_view part) const {
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++found;
    return found;
  }
  /// Reads everything that has arrived, without waiting for more.
  void read() {
    char buffer[16384];
    for (ssize_t count; (count = ::read(descriptor.get(), buffer, sizeof buffer)) != 0;) {
      if (count < 0 && errno == EAGAIN) return;
      if (count < 0) break;
      // A terminal turns each "\n" into "\r\n". Drop the "\r".
      for (const char each : std::string_view(buffer, static_cast<std::size_t>(count))) {
        if (each != '\r') text += each;
      }
    }
    readable.reset();
  }

  std::string text;

 private:
  EventLoop& loop;
  FileDescriptor descriptor;
  EventSource readable;
};

/// The terminal face (the user interface in a terminal), with a keyboard and a screen that the test controls.
class TerminalRig {
 public:
  enum class Line { pipes, terminal };

  TerminalRig(EventLoop& givenLoop, Line givenLine)
      : loop(givenLoop), line(givenLine), screen(loop, outgoing()) {
    const StandardStreams streams(line == Line::terminal ? terminal.inside.get() : toProgram.reading.get(),
                                  line == Line::terminal ? terminal.inside.get() : fromProgram.writing.get());
    face = std::make_unique<TerminalFace>(loop, false, desktop);
    toProgram.reading.reset();
    fromProgram.writing.reset();
    face->addToStatusBar(StatusItem::squareLength);
  }

  void type(std::string_view text) const {
    if (write(incoming(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw std::runtime_error("the keyboard is stuck");
    }
  }
  void endInput() {
    if (line == Line::terminal) return type("\x04");
    toProgram.writing.reset();
  }

  /// Presents `alert`. Its text is fixed now, not when it is shown.
  void present(
      Alert alert, std::function<void(const AlertAnswer&)> completion = [](const auto&) {}) const {
    face->present({[alert = std::move(alert)] { return alert; }, std::move(completion)});
  }

  void closeScreen() {
    screen.close();
    fromProgram.reading.reset();
  }

  /// With pipes: returns when the face has read everything that was typed, and `screen` has the output. With
  /// a terminal, input and output may still be on their way, because the kernel delivers them asynchronously.
  void settle() {
    settleQueue(loop);
    screen.read();
  }

  /// Calls settle(). Returns the text on the screen, and clears the screen.
  std::string printed() {
    settle();
    return std::exchange(screen.text, {});
  }
  /// Returns what is printed when the user types `text`.
  std::string after(std::string_view text) {
    printed();
    type(text);
    return printed();
  }

  EventLoop& loop;
  const Line line;
  PipeEnds toProgram;
  PipeEnds fromProgram;
  PseudoTerminal terminal;
  Screen screen;
  CallLog log;
  FakeNotifications desktop{log};
  std::unique_ptr<TerminalFace> face;

 private:
  int incoming() const { return line == Line::terminal ? terminal.outside.get() : toProgram.writing.get(); }
  int outgoing() const { return line == Line::terminal ? terminal.outside.get() : fromProgram.reading.get(); }
};

}  // namespace kestrune::testing
