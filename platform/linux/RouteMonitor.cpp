#include "platform/linux/RouteMonitor.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/linux/DeviceMedia.h"
#include "platform/posix/Diagnostics.h"

namespace kestrune {

namespace {

constexpr int patienceWithReadings = 3;
constexpr Seconds firstRetry{1.0};
constexpr Seconds longestRetry{64.0};

}  // namespace

RouteMonitor::RouteMonitor(EventLoop& givenLoop, const Clock& givenClock, SystemBus& givenBus,
                           std::string givenDevices)
    : loop(givenLoop),
      clock(givenClock),
      bus(givenBus),
      devices(std::move(givenDevices)),
      retryDelay(firstRetry) {}

RouteMonitor::~RouteMonitor() {
  cancel();
}

void RouteMonitor::start(DispatchQueue& givenQueue, std::function<void(NetworkPath)> givenOnUpdate) {
  queue = &givenQueue;
  onUpdate = std::make_shared<std::function<void(NetworkPath)>>(std::move(givenOnUpdate));
  // Before the first reading, so that no change falls between the two.
  listen();
  resume = std::make_unique<ResumeObserver>(bus, [this] { resumed(); });
  reports.notice(clock.awakeTime());
  act();
}

void RouteMonitor::listen() {
  listener.emplace();
  if (listener->isOpen())
    messages = loop.onDescriptor(listener->descriptor(), EPOLLIN, [this] { messagesCame(); });
}

void RouteMonitor::cancel() {
  if (onUpdate) *onUpdate = nullptr;
  resume.reset();
  reading.reset();
  timer.reset();
  retry.reset();
  messages.reset();
  listener.reset();
}

void RouteMonitor::messagesCame() {
  if (!listener->takeMessages()) return;
  reports.notice(clock.awakeTime());
  // What comes until the reading is not looked at: a burst of any length costs two wake-ups.
  sd_event_source_set_enabled(messages.get(), SD_EVENT_OFF);
  wait();
}

void RouteMonitor::resumed() {
  reports.resume(clock.awakeTime());
  wait();
}

void RouteMonitor::act() {
  const Seconds now = clock.awakeTime();
  if (reports.beginReading(now)) {
    if (listener->isOpen()) {
      // All that waits is older than the reading will be.
      listener->takeMessages();
      sd_event_source_set_enabled(messages.get(), SD_EVENT_ON);
      reading = std::make_unique<RouteReading>(
          loop, [this](const std::optional<RouteTable>& table, int error) { readingEnded(table, error); });
    } else {
      readingEnded(std::nullopt, listener->error());
    }
  } else if (const auto path = reports.takeReport(now)) {
    report(*path);
  }
  wait();
}

void RouteMonitor::wait() {
  timer.reset();
  if (const auto due = reports.due()) timer = loop.after(*due - clock.awakeTime(), [this] { act(); });
}

void RouteMonitor::readingEnded(const std::optional<RouteTable>& table, int error) {
  const auto found = table ? std::optional(pathIn(*table)) : std::nullopt;
  const auto path = reports.endReading(found, clock.awakeTime());
  reading.reset();
  failedReadings = table ? 0 : failedReadings + 1;
  if (table) {
    retry.reset();
    retryDelay = firstRetry;
  }
  if (!table) retryReading(error);
  if (path) report(*path);
  wait();
}

void RouteMonitor::retryReading(int error) {
  if (listener->isOpen() && failedReadings < patienceWithReadings) {
    reports.notice(clock.awakeTime());
    return;
  }
  reportOnce(std::string("the routes cannot be read (") + std::strerror(error) +
             "): changes of the network go unnoticed");
  // Whatever was short may be there again. Until then this must not keep a machine awake that never has it.
  retry = loop.after(retryDelay, [this] {
    if (!listener->isOpen()) listen();
    reports.notice(clock.awakeTime());
    wait();
  });
  retryDelay = std::min(retryDelay * 2, longestRetry);
}

DefaultPath RouteMonitor::pathIn(const RouteTable& table) const {
  DefaultPath found;
  found.hops = table.defaultHops();
  found.path.satisfied = !found.hops.empty();
  const DeviceMedia media(devices, table.interfaces());
  for (const auto& hop : found.hops) {
    const Medium medium = media.of(hop.interface);
    found.path.usesWiFi |= medium == Medium::wiFi;
    found.path.usesWiredEthernet |= medium == Medium::wired;
    found.path.usesCellular |= medium == Medium::cellular;
  }
  return found;
}

void RouteMonitor::report(NetworkPath path) {
  queue->async([shared = onUpdate, path] {
    // A copy, because the update may cancel this.
    if (const auto update = *shared) update(path);
  });
}

RouteMonitors::RouteMonitors(EventLoop& givenLoop, const Clock& givenClock, SystemBus& givenBus,
                             std::string givenDevices)
    : loop(givenLoop), clock(givenClock), bus(givenBus), devices(std::move(givenDevices)) {}

std::unique_ptr<PathMonitor> RouteMonitors::makePathMonitor() {
  return std::make_unique<RouteMonitor>(loop, clock, bus, devices);
}

}  // namespace kestrune
