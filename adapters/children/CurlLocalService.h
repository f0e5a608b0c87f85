#pragma once

#include "adapters/children/ChildProcesses.h"
#include "ports/Clock.h"
#include "ports/LocalService.h"

namespace kestrune {

/// Asks the backend's service through curl, so that this process never has a socket on the service's port:
/// stopping the backend kills the processes on that port. curl reads the token from a memfd (a file in
/// memory) on its standard input, because other processes can read its arguments and its environment.
class CurlLocalService final : public LocalService {
 public:
  /// `limit`: how long a request may take. `children` and `clock` must outlive this object.
  CurlLocalService(ChildProcesses& givenChildren, Clock& givenClock, Seconds givenLimit = Seconds{5})
      : children(givenChildren), clock(givenClock), limit(givenLimit) {}

  std::optional<std::string> getProjects(const std::string& token) override;

 private:
  ChildProcesses& children;
  Clock& clock;
  const Seconds limit;
};

}  // namespace kestrune
