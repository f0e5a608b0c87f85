#pragma once

#include "adapters/children/ChildProcesses.h"
#include "ports/Clock.h"
#include "ports/LocalService.h"

namespace kestrune {

/// Asks the service by a child, so that no socket of this process is ever open to the service's port: whoever
/// has one there is ended when the backend is stopped. The token goes to the child by a file in memory,
/// because its arguments and its environment can be read by others.
class CurlLocalService final : public LocalService {
 public:
  /// `limit` is how long a request may take. What is given outlives this.
  CurlLocalService(ChildProcesses& givenChildren, Clock& givenClock, Seconds givenLimit = Seconds{5})
      : children(givenChildren), clock(givenClock), limit(givenLimit) {}

  std::optional<std::string> getProjects(const std::string& token) override;

 private:
  ChildProcesses& children;
  Clock& clock;
  const Seconds limit;
};

}  // namespace kestrune
