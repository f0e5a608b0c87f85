#pragma once

#include "adapters/children/ChildProcesses.h"
#include "ports/Clock.h"
#include "ports/LocalService.h"

namespace kestrune {

/// Sends requests to the backend's service through curl, so that the client needs no HTTP code. curl reads
/// the token from a memfd (a file in memory) on its standard input, because other processes can read curl's
/// arguments and environment.
class CurlLocalService final : public LocalService {
 public:
  /// `givenLimit`: how long a request may take. `givenChildren` and `givenClock` must outlive this object.
  CurlLocalService(ChildProcesses& givenChildren, Clock& givenClock, Seconds givenLimit = Seconds{5})
      : children(givenChildren), clock(givenClock), limit(givenLimit) {}

  std::optional<std::string> getProjects(const std::string& token) override;

 private:
  ChildProcesses& children;
  Clock& clock;
  const Seconds limit;
};

}  // namespace kestrune
