#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "adapters/system/FileDescriptor.h"
#include "tests/rig/ComesTrue.h"

namespace kestrune::testing {

/// A named pipe by which a child tells the test that the child has come to a certain point of its work: at
/// this point, the child opens and closes the pipe.
class Milestone {
 public:
  explicit Milestone(std::string givenPath) : path(std::move(givenPath)) {
    if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("no named pipe");
    reader.reset(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  }

  /// Waits until the child opens the pipe. Returns false if this takes longer than `wait`.
  bool isReached(Seconds wait = patience) const {
    pollfd waiting{reader.get(), POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(wait.count() * 1000)) == 1;
  }

  const std::string path;

 private:
  FileDescriptor reader;
};

}  // namespace kestrune::testing
