#pragma once

#include <functional>

#include "ports/Loop.h"

namespace kestrune {

/// Describes the route to hosts beyond this machine.
struct NetworkPath {
  bool satisfied = false;  ///< an interface can reach hosts beyond this machine
  bool usesWiFi = false;
  bool usesWiredEthernet = false;
  bool usesCellular = false;

  bool operator==(const NetworkPath&) const = default;
};

/// Reports changes of the network path on any interface.
class PathMonitor {
 public:
  virtual ~PathMonitor() = default;

  /// Starts the monitor. Call this once, on the main thread. The monitor first calls `onUpdate` with the
  /// present path, and then after each change and each resume from suspend. Each call is a job of `queue`,
  /// which must run its jobs on the main thread. An update may equal the previous update: after a resume,
  /// after a short interruption, or when the machine got another address or another network of the same type.
  virtual void start(DispatchQueue& queue, std::function<void(NetworkPath)> onUpdate) = 0;

  /// Stops the updates: `onUpdate` is not called again, not even by a job already queued. Main thread.
  virtual void cancel() = 0;
};

}  // namespace kestrune
