#pragma once

#include <array>
#include <functional>
#include <memory>
#include <vector>

#include "adapters/system/System.h"
#include "ports/Process.h"

namespace kestrune {

/// Starts child processes with posix_spawn.
class ChildProcesses final : public Processes {
 public:
  /// A function that takes over the non-blocking read end of a pipe. Runs on the thread that reads the output
  /// of the child or destroys its Process.
  using TakePipe = std::function<void(FileDescriptor readEnd)>;

  /// `leftover` takes over the read end of a pipe that is not at end of file when `readOutput` returns or the
  /// Process is destroyed. The child or a descendant may still write to this pipe. By default, the read end
  /// is closed, and a process that writes to the pipe gets SIGPIPE.
  explicit ChildProcesses(TakePipe leftover = [](FileDescriptor) {});

  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments) override {
    return launch(executable, arguments, STDIN_FILENO);
  }
  /// Launches a child whose standard input is `input`. Looks up `executable` on PATH if it has no slash.
  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments, int input);
  void reserveForThisThread() override;

 private:
  class Child;
  struct Register;

  const std::shared_ptr<Register> children;  // shared with every Process, which may outlive this object
  // Four open descriptors of /dev/null. `reserveForThisThread` closes them, so that the next launch can open
  // its pipes even if the process has reached RLIMIT_NOFILE.
  std::array<FileDescriptor, 4> spare;
};

}  // namespace kestrune
