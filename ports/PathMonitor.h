#pragma once

#include <functional>
#include <memory>

#include "ports/DispatchQueue.h"

namespace kestrune {

/// What the default route of this machine looks like now.
struct NetworkPath {
  bool satisfied = false;  ///< some interface can reach beyond this machine
  bool usesWiFi = false;
  bool usesWiredEthernet = false;
  bool usesCellular = false;

  bool operator==(const NetworkPath&) const = default;
};

/// Reports changes of the network path. Behind a port so that a test can move the machine between networks.
class PathMonitor {
 public:
  virtual ~PathMonitor() = default;

  /// Calls `onUpdate` on `queue`, which the main thread runs, once soon after the start, then after each
  /// change and after each resume from sleep. An update may be equal to the one before: after a resume, after
  /// a short interruption, or where the address or the network is another one of the same type. Called once,
  /// on the main thread.
  virtual void start(DispatchQueue& queue, std::function<void(NetworkPath)> onUpdate) = 0;

  /// Once this returns, `onUpdate` is not called again, also not by what is on the queue already. Main
  /// thread.
  virtual void cancel() = 0;
};

/// Makes path monitors over all interfaces.
class PathMonitors {
 public:
  virtual ~PathMonitors() = default;
  virtual std::unique_ptr<PathMonitor> makePathMonitor() = 0;
};

}  // namespace kestrune
