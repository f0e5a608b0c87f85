#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "adapters/bus/SessionBus.h"
#include "adapters/network/NetworkDecision.h"
#include "adapters/network/RouteLookup.h"
#include "ports/Clock.h"
#include "ports/PathMonitor.h"

namespace kestrune {

/// Monitors the network path to the Internet, in the network namespace of the calling thread. Asks the kernel
/// (`lookUpRoute`) after each burst of rtnetlink messages and after each resume (PrepareForSleep of logind),
/// and reports what `NetworkDecision` decides. When the kernel refuses to answer, prints the error on
/// standard error, and asks again with growing delays. Main thread.
class NetworkMonitor final : public PathMonitor, private BusClient {
 public:
  /// `givenDevices`: a folder like /sys/class/net. The loop, the clock and the bus must outlive this object.
  NetworkMonitor(EventLoop& givenLoop, const Clock& givenClock, SystemBus& givenBus,
                 std::string givenDevices = "/sys/class/net", const PathTiming& timing = {})
      : BusClient(givenBus),
        loop(givenLoop),
        clock(givenClock),
        devices(std::move(givenDevices)),
        decision(timing) {}
  ~NetworkMonitor() override { cancel(); }

  void start(DispatchQueue& queue, std::function<void(NetworkPath)> onUpdate) override;
  void cancel() override;

 private:
  static constexpr Seconds firstRetry{0.25}, longestRetry{64.0};

  void act();
  void wait() {
    timer.reset();
    if (const auto due = decision.due()) timer = loop.after(*due - clock.awakeTime(), [this] { act(); });
  }
  void notice() {
    // A network change often causes many messages. Stop listening, so that the later messages do not wake the
    // process. `ask` listens again.
    stopListening();
    decision.notice(clock.awakeTime());
    wait();
  }
  std::optional<RoutedPath> ask();
  bool listen();
  void stopListening() {
    changed.reset();
    socket.reset();
  }
  void busConnected() override {
    sd_bus_match_signal_async(bus, Into(sleepSignal), "org.freedesktop.login1", "/org/freedesktop/login1",
                              "org.freedesktop.login1.Manager", "PrepareForSleep",
                              &handler<&NetworkMonitor::prepareForSleep>, &ignoreReply, this);
  }
  void prepareForSleep(sd_bus_message* signal);

  EventLoop& loop;
  const Clock& clock;
  const std::string devices;
  DispatchQueue* queue = nullptr;
  /// Null before `start` and after `cancel`. The jobs on the queue hold it weakly, so `cancel` stops them.
  std::shared_ptr<std::function<void(NetworkPath)>> onUpdate;
  NetworkDecision decision;
  BusSlot sleepSignal;
  NetlinkSocket socket;
  EventSource changed, timer, retry;
  Seconds retryDelay = firstRetry;  // how long to wait before the retry, if the next `ask` fails
};

}  // namespace kestrune
