#pragma once

#include <sys/types.h>

#include <array>
#include <functional>
#include <memory>
#include <vector>

#include "adapters/system/FileDescriptor.h"
#include "ports/Process.h"

namespace kestrune {

/// Child processes by posix_spawn.
class ChildProcesses final : public Processes {
 public:
  /// Takes over the read end of a pipe, which does not block, on the thread that used the child.
  using TakePipe = std::function<void(FileDescriptor readEnd)>;

  /// `leftover` gets the pipes that a descendant still holds when the output was read, or the child was
  /// destroyed. Without it they are closed, and whoever writes to one gets SIGPIPE.
  explicit ChildProcesses(TakePipe leftover = {});

  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments) override;
  /// As above, with another standard input. An executable without a slash is looked up on PATH.
  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments, int input);
  void reserveForThisThread() override;

 private:
  class Child;
  struct Register;

  const std::shared_ptr<Register> children;  // shared with every child, which may outlive this
  std::array<FileDescriptor, 4> spare;       // as many as a launch takes, for the one that is reserved
};

}  // namespace kestrune
