#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "adapters/system/FileDescriptor.h"
#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// A program of the machine's that runs beside a test, in a process group of its own. Ends with this,
/// together with what it started.
class RealProgram {
 public:
  /// Found by the PATH. `variables` are added to the environment, as "NAME=value".
  RealProgram(std::vector<std::string> arguments, std::vector<std::string> variables = {})
      : name(arguments.at(0)) {
    const FileDescriptor speaking = makePipe(voice);
    const FileDescriptor complaining = makePipe(complaints);
    std::vector<char*> words;
    for (auto& each : arguments) words.push_back(each.data());
    words.push_back(nullptr);
    const pid_t parent = getpid();
    process = fork();
    if (process == 0) {
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      setpgid(0, 0);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
      dup2(speaking.get(), STDOUT_FILENO);
      dup2(complaining.get(), STDERR_FILENO);
      for (auto& each : variables) putenv(each.data());
      execvp(words[0], words.data());
      _exit(127);
    }
    if (process < 0) throw std::runtime_error("no process for " + name);
    setpgid(process, process);
  }

  ~RealProgram() { end(); }
  RealProgram(const RealProgram&) = delete;
  RealProgram& operator=(const RealProgram&) = delete;

  void end() {
    if (process <= 0) return;
    kill(-process, SIGKILL);
    waitpid(std::exchange(process, -1), nullptr, 0);
  }

  /// Everything that it has written so far to standard output.
  const std::string& output() { return take(voice, heard); }
  /// Everything that it has written so far to standard error.
  const std::string& errors() { return take(complaints, complained); }

  bool says(const std::string& words) { return output().find(words) != std::string::npos; }

  /// Returns what it wrote to standard output up to the first line end; throws if there is none in time.
  std::string firstLine() {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (output().find('\n') == std::string::npos) {
      if (listen(deadline) != Voice::speaks) throw std::runtime_error(name + " does not start: " + errors());
    }
    return heard.substr(0, heard.find('\n'));
  }

  /// Reads its standard output to the end; false when that does not come within `wait`.
  bool endsWithin(Seconds wait) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
      const Voice state = listen(deadline);
      if (state != Voice::speaks) return state == Voice::isGone;
      output();
    }
  }

 private:
  /// The end to write to; a writer is not troubled by the reader that does not wait.
  static FileDescriptor makePipe(FileDescriptor& reader) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    reader.reset(ends[0]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return FileDescriptor(ends[1]);
  }

  enum class Voice { speaks, isSilent, isGone };
  /// Waits until there is something to read, or an end.
  Voice listen(std::chrono::time_point<std::chrono::steady_clock, Seconds> deadline) const {
    pollfd readable{voice.get(), POLLIN, 0};
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (poll(&readable, 1, static_cast<int>(std::max<long>(0, left.count()))) != 1) return Voice::isSilent;
    return (readable.revents & POLLIN) != 0 ? Voice::speaks : Voice::isGone;
  }

  static const std::string& take(const FileDescriptor& from, std::string& text) {
    char buffer[4096];
    for (ssize_t count; (count = read(from.get(), buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
  }

  const std::string name;
  FileDescriptor voice, complaints;
  std::string heard, complained;
  pid_t process = -1;
};

}  // namespace kestrune::testing
