#include "adapters/network/NetworkMonitor.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "adapters/network/PathLookup.h"
#include "adapters/system/StandardError.h"

namespace kestrune {

namespace {

constexpr std::size_t datagramSize = 32768;  // bytes; the largest datagram of a netlink dump
constexpr Seconds firstRetry{0.25};
constexpr Seconds longestRetry{64.0};

/// Multicast groups for all changes that may change the path. The route groups are not enough: the kernel
/// sends no message for routes that vanish with an address or, in IPv4, with an interface.
constexpr std::array groups{RTNLGRP_LINK,       RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
                            RTNLGRP_IPV6_ROUTE, RTNLGRP_IPV4_RULE,   RTNLGRP_IPV6_RULE,   RTNLGRP_NEXTHOP};

struct SocketCloser {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};

}  // namespace

class NetworkMonitors::Monitor final : public PathMonitor, private BusClient {
 public:
  explicit Monitor(const NetworkMonitors& monitors) : parts(monitors), reports(monitors.timing) {}
  ~Monitor() override { cancel(); }

  void start(DispatchQueue& givenQueue, std::function<void(NetworkPath)> givenOnUpdate) override {
    queue = &givenQueue;
    onUpdate = std::make_shared<std::function<void(NetworkPath)>>(std::move(givenOnUpdate));
    parts.bus.add(*this);
    reports.notice(parts.clock.awakeTime());
    act();
  }

  void cancel() override {
    if (onUpdate) *onUpdate = nullptr;
    parts.bus.remove(*this);
    sleepSignal.reset();
    timer.reset();
    retry.reset();
    close();
  }

 private:
  void act() {
    const Seconds now = parts.clock.awakeTime();
    if (reports.beginQuestion(now)) {
      ask();
    } else {
      report(reports.takeReport(now));
    }
    wait();
  }

  void wait() {
    // During a burst, close the socket until the next lookup opens another: a burst of any length wakes the
    // process only twice.
    if (reports.isInBurst() && !lookup) close();
    timer.reset();
    if (const auto due = reports.due())
      timer = parts.loop.after(*due - parts.clock.awakeTime(), [this] { act(); });
  }

  void notice() {
    reports.notice(parts.clock.awakeTime());
    wait();
  }

  void ask() {
    // Subscribe before asking, so that no change is missed in between.
    if (const int error = open(); error != 0) return endQuestion(error);
    lookup.emplace(mnl_socket_get_portid(socket.get()), [this](const nlmsghdr& request) {
      return mnl_socket_sendto(socket.get(), &request, request.nlmsg_len) < 0 ? errno : 0;
    });
    if (lookup->isOver()) endQuestion(0);
  }

  /// Opens an rtnetlink socket that receives changes from now on. Returns 0 or an errno value.
  int open() {
    socket.reset(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) return errno;
    for (int group : groups) {
      if (mnl_socket_setsockopt(socket.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
        return errno;
    }
    readable = parts.loop.onDescriptor(mnl_socket_get_fd(socket.get()), EPOLLIN, [this] { receive(); });
    return 0;
  }

  void close() {
    lookup.reset();
    readable.reset();
    socket.reset();
  }

  void receive() {
    alignas(nlmsghdr) std::array<char, datagramSize> buffer;
    const auto size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
    const int error = size < 0 ? errno : 0;
    if (error == EAGAIN || error == EINTR) return;
    if (!lookup) return notice();  // also for ENOBUFS: messages were lost
    if (error == 0 && lookup->take(buffer.data(), static_cast<std::size_t>(size))) notice();
    if (error != 0 || lookup->isOver()) endQuestion(error);
    wait();
  }

  /// `error` is 0, or the errno of opening the socket, sending or receiving.
  void endQuestion(int error) {
    const auto answer = error == 0 ? lookup->path(parts.devices) : std::nullopt;
    if (error == 0) error = lookup->refusal();
    lookup.reset();
    report(reports.endQuestion(answer, parts.clock.awakeTime()));
    if (answer) {
      retry.reset();
      retryDelay = firstRetry;
      return;
    }
    close();
    if (error != ENOBUFS) {
      reportOnce(std::string("the routes cannot be read (") + std::strerror(error) +
                 "): changes of the network go unnoticed");
    }
    // The delay doubles: a kernel that always refuses must not cause frequent wake-ups.
    retry = parts.loop.after(retryDelay, [this] { notice(); });
    retryDelay = std::min(retryDelay * 2, longestRetry);
  }

  void report(std::optional<NetworkPath> path) {
    if (!path) return;
    queue->async([shared = onUpdate, path = *path] {
      // Copied, because the update may cancel this monitor.
      if (const auto update = *shared) update(path);
    });
  }

  void busConnected(sd_bus* connected) override {
    sd_bus_slot* slot = nullptr;
    if (sd_bus_match_signal_async(connected, &slot, "org.freedesktop.login1", "/org/freedesktop/login1",
                                  "org.freedesktop.login1.Manager", "PrepareForSleep", &prepareForSleep,
                                  &ignoreAnswer, this) >= 0) {
      sleepSignal.reset(slot);
    }
  }

  void busLost() override { sleepSignal.reset(); }

  static int prepareForSleep(sd_bus_message* signal, void* data, sd_bus_error*) {
    int goesToSleep = 1;
    if (!isForEverybody(signal) || sd_bus_message_read(signal, "b", &goesToSleep) < 0) return 0;
    if (goesToSleep == 0) static_cast<Monitor*>(data)->resumed();
    return 0;
  }

  void resumed() {
    reports.resume(parts.clock.awakeTime());
    wait();
  }

  const NetworkMonitors parts;
  DispatchQueue* queue = nullptr;
  std::shared_ptr<std::function<void(NetworkPath)>> onUpdate;  // shared with the jobs on the queue
  PathReports reports;
  BusSlot sleepSignal;
  std::unique_ptr<mnl_socket, SocketCloser> socket;
  std::optional<PathLookup> lookup;  // while a question is open
  EventSource readable;
  EventSource timer;
  EventSource retry;
  Seconds retryDelay = firstRetry;  // after the next failure
};

std::unique_ptr<PathMonitor> NetworkMonitors::makePathMonitor() {
  return std::make_unique<Monitor>(*this);
}

}  // namespace kestrune
