#pragma once

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "adapters/system/System.h"
#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// Waits until a process, which need not be a child, has ended. Returns false if this takes more than `wait`.
inline bool ends(pid_t pid, Seconds wait = patience) {
  const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!process && errno == ESRCH) return true;
  if (!process) throw std::runtime_error("cannot open a pidfd");
  pollfd waiting{process.get(), POLLIN, 0};
  return poll(&waiting, 1, static_cast<int>(wait.count() * 1000)) == 1;
}

/// A process that a child of the test has started and left running. The destructor kills this process.
class Leftover {
 public:
  explicit Leftover(pid_t givenPid) : pid(givenPid) {}
  ~Leftover() {
    if (runs()) kill(pid, SIGKILL);
  }
  Leftover(const Leftover&) = delete;
  Leftover& operator=(const Leftover&) = delete;

  bool runs() const { return pid > 0 && !ends(pid, Seconds{0}); }

  const pid_t pid;
};

}  // namespace kestrune::testing
