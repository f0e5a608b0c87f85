#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "adapters/system/FileDescriptor.h"
#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// A process of its own that runs a part of the test and says, line by line, how it goes. Ends with this.
class ForkedProgram {
 public:
  using Say = std::function<void(const std::string&)>;

  explicit ForkedProgram(const std::function<void(const Say&)>& body) {
    std::array<FileDescriptor, 2> said = makePipe();
    std::array<FileDescriptor, 2> complained = makePipe();
    const pid_t parent = getpid();
    process = fork();
    if (process == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      dup2(complained[1].get(), STDERR_FILENO);
      body([&said](const std::string& line) {
        const std::string text = line + "\n";
        if (write(said[1].get(), text.data(), text.size()) < 0) _exit(1);
      });
      _exit(0);
    }
    voice = std::move(said[0]);
    complaints = std::move(complained[0]);
  }

  ~ForkedProgram() {
    if (process > 0) end(SIGKILL);
  }
  ForkedProgram(const ForkedProgram&) = delete;
  ForkedProgram& operator=(const ForkedProgram&) = delete;

  pid_t pid() const { return process; }

  /// The next line that it says; "silence" when none comes, "end" when it has ended.
  std::string line() {
    for (;;) {
      if (const auto at = heard.find('\n'); at != std::string::npos) {
        const std::string first = heard.substr(0, at);
        heard.erase(0, at + 1);
        return first;
      }
      pollfd readable{voice.get(), POLLIN, 0};
      if (poll(&readable, 1, patienceInMilliseconds) != 1) return "silence";
      char buffer[256];
      const ssize_t count = read(voice.get(), buffer, sizeof buffer);
      if (count <= 0) return "end";
      heard.append(buffer, static_cast<std::size_t>(count));
    }
  }

  /// Whether nothing that it said waits to be heard.
  bool isSilent() const {
    pollfd readable{voice.get(), POLLIN, 0};
    return heard.empty() && poll(&readable, 1, 0) == 0;
  }

  void tell(int signal) const { kill(process, signal); }

  /// Ends it by a signal; returns when it has ended.
  void end(int signal) {
    kill(process, signal);
    waitForEnd();
  }
  void waitForEnd() {
    const FileDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    pollfd ended{handle.get(), POLLIN, 0};
    if (poll(&ended, 1, patienceInMilliseconds) != 1) {
      ADD_FAILURE() << "the program does not end";
      kill(process, SIGKILL);
    }
    waitpid(std::exchange(process, -1), nullptr, 0);
  }

  /// What it wrote to standard error, once it has ended.
  std::string standardError() {
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = read(complaints.get(), buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  static std::array<FileDescriptor, 2> makePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
  }

  FileDescriptor voice;
  FileDescriptor complaints;
  std::string heard;
  pid_t process = -1;
};

}  // namespace kestrune::testing
