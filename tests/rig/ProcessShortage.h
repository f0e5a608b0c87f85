#pragma once

#include <unistd.h>

#include <optional>
#include <stdexcept>

#include "tests/rig/ResourceLimit.h"

namespace kestrune::testing {

/// While this lives, this process can start no other process and no thread. For a process of the test's own:
/// no such limit binds root, so that one that is root becomes somebody else for good.
class ProcessShortage {
 public:
  ProcessShortage() {
    constexpr uid_t nobody = 65534;
    // In a user namespace of its own there may be nobody else to become, but its root is not the machine's.
    if (geteuid() == 0) static_cast<void>(!setresuid(nobody, nobody, nobody));
    limit.emplace(RLIMIT_NPROC, 0);
    if (const pid_t child = vfork(); child == 0) {
      _exit(0);
    } else if (child > 0) {
      throw std::runtime_error("this machine starts processes whatever their limit is");
    }
  }

 private:
  std::optional<ResourceLimit> limit;
};

}  // namespace kestrune::testing
