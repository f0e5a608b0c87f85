#pragma once

#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <vector>

#include "adapters/system/FileDescriptor.h"
#include "tests/rig/StubService.h"

namespace kestrune::testing {

/// Locks as logind gives them out: pipes that are held as long as they are open. Outlives the service that
/// gives them.
class StubLocks {
 public:
  StubService::Behaviour grants() {
    return [this](sd_bus_message* call) {
      int ends[2];
      if (pipe2(ends, O_CLOEXEC) != 0) return false;
      const FileDescriptor given(ends[1]);
      const std::lock_guard lock(mutex);
      pipes.emplace_back(ends[0]);
      sd_bus_reply_method_return(call, "h", given.get());
      return true;
    };
  }

  /// How many locks there are that nobody has let go.
  std::size_t held() const {
    const std::lock_guard lock(mutex);
    return static_cast<std::size_t>(std::count_if(pipes.begin(), pipes.end(), [](const FileDescriptor& pipe) {
      pollfd end{pipe.get(), 0, 0};
      return poll(&end, 1, 0) == 0;
    }));
  }

 private:
  mutable std::mutex mutex;
  std::vector<FileDescriptor> pipes;  // guarded by mutex
};

}  // namespace kestrune::testing
