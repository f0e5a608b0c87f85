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

  /// `leftover` gets each pipe that a descendant of the child still has open when the output was read or the
  /// Process was destroyed. Without `leftover`, the pipe is closed, and its writers get SIGPIPE.
  explicit ChildProcesses(TakePipe leftover = {});

  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments) override;
  /// Does the same with `input` as standard input. Without a slash, `executable` is looked up on PATH.
  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments, int input);
  void reserveForThisThread() override;

 private:
  class Child;
  struct Register;

  const std::shared_ptr<Register> children;  // shared with every Process, which may outlive this object
  std::array<FileDescriptor, 4> spare;       // spare descriptors for the launch after `reserveForThisThread`
};

}  // namespace kestrune
