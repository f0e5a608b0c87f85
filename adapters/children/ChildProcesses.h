#pragma once

#include <sys/types.h>

#include <array>
#include <functional>
#include <memory>
#include <vector>

#include "adapters/system/FileDescriptor.h"
#include "ports/Process.h"

namespace kestrune {

/// Starts child processes with posix_spawn.
class ChildProcesses final : public Processes {
 public:
  /// A function that takes over the non-blocking read end of a pipe. Runs on the thread that uses the child.
  using TakePipe = std::function<void(FileDescriptor readEnd)>;

  /// `leftover` receives each pipe that a descendant of the child still has open when the output has been
  /// read or the Process is destroyed. Without `leftover`, these pipes are closed, and a descendant that
  /// writes to one gets SIGPIPE.
  explicit ChildProcesses(TakePipe leftover = {});

  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments) override;
  /// Does the same with the descriptor `input` as the child's standard input. An executable without a slash
  /// is looked up on PATH.
  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments, int input);
  void reserveForThisThread() override;

 private:
  class Child;
  struct Register;

  const std::shared_ptr<Register> children;  // shared with every Process, which may outlive this object
  std::array<FileDescriptor, 4> spare;  // kept open to be closed for the launch after `reserveForThisThread`
};

}  // namespace kestrune
