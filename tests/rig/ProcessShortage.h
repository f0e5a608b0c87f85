#pragma once

#include <unistd.h>

#include <optional>
#include <stdexcept>

#include "tests/rig/ResourceLimit.h"

namespace kestrune::testing {

/// While this object exists, this process can start no process and no thread (RLIMIT_NPROC). The limit spares
/// root, so a root process becomes another user, for good: use this only in a ForkedProgram.
class ProcessShortage {
 public:
  ProcessShortage() {
    constexpr uid_t nobody = 65534;
    // In a user namespace that maps only one user, this call fails. Ignore this: the limit spares only the
    // root of the initial namespace.
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
