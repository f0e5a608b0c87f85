#pragma once

#include <sys/types.h>

#include <array>
#include <memory>
#include <vector>

#include "platform/Process.h"
#include "platform/posix/FileDescriptor.h"

namespace kestrune {

/// Child processes by posix_spawn.
class ChildProcesses final : public Processes {
 public:
  ChildProcesses();

  LaunchResult launch(const std::string& executable, const std::vector<std::string>& arguments) override;
  /// As above, with another standard input. An executable without a slash is looked up on PATH.
  LaunchResult launch(const std::string& executable, const std::vector<std::string>& arguments, int input);
  void reserveForThisThread() override;

 private:
  class Child;
  struct Register;

  const std::shared_ptr<Register> children;  // shared with every child, which may outlive this
  std::array<FileDescriptor, 4> spare;       // as many as a launch takes, for the one that is reserved
};

}  // namespace kestrune
