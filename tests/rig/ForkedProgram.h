#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "adapters/system/System.h"
#include "tests/rig/ProcessEnd.h"

namespace kestrune::testing {

struct PipeEnds {
  PipeEnds() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    reading.reset(ends[0]);
    writing.reset(ends[1]);
  }
  FileDescriptor reading, writing;
};

/// A child process that runs a function of the test. The test reads the child's lines and its standard error
/// through pipes. The destructor kills the child.
class ForkedProgram {
 public:
  /// The child calls this function to send a line to the test.
  using Say = std::function<void(const std::string&)>;

  explicit ForkedProgram(const std::function<void(const Say&)>& body) {
    run(false, [&body](int output) {
      body([output](const std::string& line) {
        const std::string text = line + "\n";
        if (write(output, text.data(), text.size()) < 0) _exit(1);
      });
    });
  }

  ~ForkedProgram() {
    if (process > 0) end(SIGKILL);
  }
  ForkedProgram(const ForkedProgram&) = delete;
  ForkedProgram& operator=(const ForkedProgram&) = delete;

  pid_t pid() const { return process; }

  /// Waits for the next line and returns it. Returns "silence" if no line comes in time, and "end" if the
  /// child has ended and no line is left.
  std::string line() {
    for (bool isOpen = true;; isOpen = take(lines, heard)) {
      if (const auto end = heard.find('\n', next); end != std::string::npos) {
        const auto begin = std::exchange(next, end + 1);
        return heard.substr(begin, end - begin);
      }
      if (!isOpen) return "end";
      if (!arrives(patienceInMilliseconds)) return "silence";
    }
  }

  /// Returns whether the child still runs and line() has returned every line that the child has sent so far.
  bool isSilent() const { return next == heard.size() && !arrives(0); }

  void tell(int signal) const { kill(target, signal); }

  void end(int signal = SIGKILL) {
    tell(signal);
    waitForEnd();
  }
  void waitForEnd() {
    if (!ends(process)) {
      ADD_FAILURE() << "the program does not end";
      tell(SIGKILL);
    }
    waitpid(std::exchange(process, -1), nullptr, 0);
  }

  /// Returns everything that the child has written to standard error so far.
  const std::string& standardError() {
    take(errors, complained);
    return complained;
  }

 protected:
  ForkedProgram() = default;

  /// Starts the child, which runs `body`. With `inGroup`, the child gets its own process group, and tell()
  /// sends signals to the whole group.
  void run(bool inGroup, const std::function<void(int output)>& body) {
    PipeEnds output, error;
    for (const auto* const each : {&output, &error}) fcntl(each->reading.get(), F_SETFL, O_NONBLOCK);
    lines = std::move(output.reading);
    errors = std::move(error.reading);
    const pid_t parent = getpid();
    process = fork();
    if (process == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      if (inGroup) setpgid(0, 0);
      dup2(error.writing.get(), STDERR_FILENO);
      body(output.writing.get());
      _exit(0);
    }
    if (process < 0) throw std::runtime_error("cannot fork");
    // The parent calls setpgid too. Otherwise the parent could send a signal before the group exists.
    if (inGroup) setpgid(process, process);
    target = inGroup ? -process : process;
  }

  /// Returns all lines that the child has sent so far.
  const std::string& allLines() {
    take(lines, heard);
    return heard;
  }

 private:
  /// Empties the pipe, and appends what it read to `text`. Returns false if the writing end is closed.
  static bool take(const FileDescriptor& pipe, std::string& text) {
    char buffer[4096];
    ssize_t count;
    while ((count = read(pipe.get(), buffer, sizeof buffer)) > 0) {
      text.append(buffer, static_cast<std::size_t>(count));
    }
    return count != 0;
  }

  bool arrives(int milliseconds) const {
    pollfd readable{lines.get(), POLLIN, 0};
    return poll(&readable, 1, milliseconds) == 1;
  }

  FileDescriptor lines, errors;
  std::string heard, complained;
  std::size_t next = 0;  // position in `heard` of the first character that line() has not returned
  pid_t process = -1;
  pid_t target = -1;
};

/// An installed program that runs beside a test, in its own process group. The destructor kills the group.
class RealProgram : public ForkedProgram {
 public:
  /// Starts `arguments[0]` from the PATH. `variables` ("NAME=value") are added to its environment.
  explicit RealProgram(std::vector<std::string> arguments, std::vector<std::string> variables = {})
      : name(arguments.at(0)) {
    run(true, [&](int output) {
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
      dup2(output, STDOUT_FILENO);
      for (auto& each : variables) putenv(each.data());
      std::vector<char*> words;
      for (auto& each : arguments) words.push_back(each.data());
      words.push_back(nullptr);
      execvp(words[0], words.data());
      _exit(127);
    });
  }

  const std::string& output() { return allLines(); }
  const std::string& errors() { return standardError(); }

  bool says(const std::string& words) { return output().find(words) != std::string::npos; }

  /// Waits for the first line of standard output and returns it. Throws if no line comes in time.
  std::string firstLine() {
    const std::string first = line();
    if (output().find('\n') == std::string::npos) {
      throw std::runtime_error(name + " does not start: " + errors());
    }
    return first;
  }

  bool endsWithin(Seconds wait) const { return ends(pid(), wait); }

 private:
  const std::string name;
};

}  // namespace kestrune::testing
