#pragma once

#include <memory>
#include <string>

#include "adapters/bus/SessionBus.h"
#include "adapters/network/PathReports.h"
#include "ports/Clock.h"
#include "ports/PathMonitor.h"

namespace kestrune {

/// Makes monitors of the way to the outside in the network namespace of the calling thread. They ask the
/// kernel for it over rtnetlink after each burst of messages (`PathLookup`) and after each resume from sleep,
/// of which logind tells on the system bus, and report what `PathReports` decides. Where the kernel refuses
/// to answer, the path is reported once as satisfied and of no type, standard error says why, and it is asked
/// again ever more rarely. Main thread.
class NetworkMonitors final : public PathMonitors {
 public:
  /// `devices` is the kernel's folder of network devices. What is referred to outlives this and the
  /// monitors.
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
