#pragma once

#include <unistd.h>

#include <optional>
#include <stdexcept>

#include "tests/rig/ResourceLimit.h"

namespace kestrune::testing {

/// While this lives, this process can start no process and no thread (RLIMIT_NPROC). Use it only in a
/// ForkedProgram: the limit does not bind root, so this changes the user for good.
class ProcessShortage {
 public:
  ProcessShortage() {
    constexpr uid_t nobody = 65534;
    // Fails in a user namespace with one user, whose root the limit binds.
    if (geteuid() == 0) static_cast<void>(!setresuid(nobody, nobody, nobody));
    limit.emplace(RLIMIT_NPROC, 0);
    if (const pid_t child = vfork(); child == 0) {
      _exit(0);
    } else if (child > 0) {
      throw std::runtime_error("RLIMIT_NPROC does not keep this process from starting others");
    }
  }

 private:
  std::optional<ResourceLimit> limit;
};

}  // namespace kestrune::testing
