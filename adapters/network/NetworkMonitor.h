#pragma once

#include <memory>
#include <string>

#include "adapters/bus/SessionBus.h"
#include "adapters/network/NetworkDecision.h"
#include "ports/Clock.h"
#include "ports/PathMonitor.h"

namespace kestrune {

/// Makes monitors of the network path to the Internet, in the network namespace of the calling thread. A
/// monitor asks the kernel (`lookUpRoute`) after each burst of rtnetlink messages and after each resume
/// (PrepareForSleep of logind), and reports what `NetworkDecision` decides. When the kernel refuses to
/// answer, the last path counts, or a satisfied path of unknown medium if none is known; the monitor prints
/// the error on standard error, and asks again with growing delays. Main thread.
class NetworkMonitors final : public PathMonitors {
 public:
  /// `devices`: a folder like /sys/class/net. All references must outlive this object and its monitors.
  NetworkMonitors(EventLoop& givenLoop, const Clock& givenClock, SystemBus& givenBus,
                  std::string givenDevices = "/sys/class/net", const PathTiming& givenTiming = {})
      : loop(givenLoop),
        clock(givenClock),
        bus(givenBus),
        devices(std::move(givenDevices)),
        timing(givenTiming) {}

  std::unique_ptr<PathMonitor> makePathMonitor() override;

 private:
  class Monitor;

  EventLoop& loop;
  const Clock& clock;
  SystemBus& bus;
  const std::string devices;
  const PathTiming timing;
};

}  // namespace kestrune
