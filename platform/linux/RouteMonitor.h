#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/Clock.h"
#include "platform/PathMonitor.h"
#include "platform/linux/PathReports.h"
#include "platform/linux/ResumeObserver.h"
#include "platform/linux/RouteSocket.h"

namespace kestrune {

/// Watches the default route of this network namespace over rtnetlink. The path is satisfied while a default
/// route of the main table is usable; its type is that of the device beneath, and a tunnel with nothing known
/// beneath has none. `PathReports` tells when an update comes. Where the kernel refuses to tell of routes,
/// the path is reported once as satisfied and of no type, standard error says why, and it is asked again ever
/// more rarely. Main thread.
class RouteMonitor final : public PathMonitor {
 public:
  /// `devices` is the kernel's folder of network devices. What is referred to outlives this.
  RouteMonitor(EventLoop& loop, const Clock& clock, SystemBus& bus, std::string devices);
  ~RouteMonitor() override;
  RouteMonitor(const RouteMonitor&) = delete;
  RouteMonitor& operator=(const RouteMonitor&) = delete;

  void start(DispatchQueue& queue, std::function<void(NetworkPath)> onUpdate) override;
  void cancel() override;

 private:
  void listen();
  void messagesCame();
  void resumed();
  void act();
  void wait();
  void readingEnded(const std::optional<RouteTable>& table, int error);
  void retryReading(int error);
  DefaultPath pathIn(const RouteTable& table) const;
  void report(NetworkPath path);

  EventLoop& loop;
  const Clock& clock;
  SystemBus& bus;
  const std::string devices;

  DispatchQueue* queue = nullptr;
  std::shared_ptr<std::function<void(NetworkPath)>>
      onUpdate;  // shared with the updates that are on their way
  PathReports reports;
  std::unique_ptr<ResumeObserver> resume;
  std::optional<RouteListener> listener;
  EventSource messages;
  EventSource timer;
  EventSource retry;
  std::unique_ptr<RouteReading> reading;
  int failedReadings = 0;  // in a row
  Seconds retryDelay;      // after the next that fails
};

/// Makes monitors of the network namespace of the calling thread.
class RouteMonitors final : public PathMonitors {
 public:
  RouteMonitors(EventLoop& loop, const Clock& clock, SystemBus& bus, std::string devices = "/sys/class/net");

  std::unique_ptr<PathMonitor> makePathMonitor() override;

 private:
  EventLoop& loop;
  const Clock& clock;
  SystemBus& bus;
  const std::string devices;
};

}  // namespace kestrune
