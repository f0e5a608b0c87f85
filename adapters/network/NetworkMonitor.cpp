#include "adapters/network/NetworkMonitor.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>

#include "adapters/system/System.h"

namespace kestrune {

void NetworkMonitor::start(DispatchQueue& givenQueue, std::function<void(NetworkPath)> givenOnUpdate) {
  queue = &givenQueue;
  onUpdate = std::make_shared<std::function<void(NetworkPath)>>(std::move(givenOnUpdate));
  connection.add(*this);
  decision.notice(clock.awakeTime());
  act();
}

void NetworkMonitor::cancel() {
  onUpdate.reset();
  connection.remove(*this);
  sleepSignal.reset();
  timer.reset();
  retry.reset();
  stopListening();
}

void NetworkMonitor::act() {
  const Seconds now = clock.awakeTime();
  const auto path = decision.isQuestionDue(now) ? decision.takeAnswer(ask(), now) : decision.takeReport(now);
  if (path) {
    queue->async([shared = std::weak_ptr(onUpdate), path = *path] {
      if (const auto update = shared.lock()) (*update)(path);
    });
  }
  wait();
}

/// Asks the kernel for the route, and listens for changes of the answer. Absent if the kernel refuses.
std::optional<RoutedPath> NetworkMonitor::ask() {
  // Listen before asking, or a change between the answer and the start of listening would be missed.
  const auto answer = listen() ? lookUpRoute(devices) : Result<RoutedPath>(Failure{describe(errno)});
  if (answer) {
    retry.reset();
    retryDelay = firstRetry;
    return *answer;
  }
  stopListening();
  reportOnce("cannot read routes over netlink (" + answer.reason() + "): network changes are not noticed");
  // The delay doubles: a kernel that always refuses must not cause frequent wake-ups.
  retry = loop.after(retryDelay, [this] { notice(); });
  retryDelay = std::min(retryDelay * 2, longestRetry);
  return std::nullopt;
}

/// Opens an rtnetlink socket that receives changes from now on. Returns false with errno set on failure.
bool NetworkMonitor::listen() {
  socket = openRtnetlink();
  if (!socket) return false;
  // The messages of these groups may mean that packets to the Internet take another route. The route groups
  // are not enough: the kernel may send no message for an IPv4 route that it deletes because an address was
  // removed or an interface went down.
  for (int group : {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
                    RTNLGRP_IPV6_ROUTE, RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE, RTNLGRP_NEXTHOP}) {
    if (mnl_socket_setsockopt(socket.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) return false;
  }
  changed = loop.onDescriptor(mnl_socket_get_fd(socket.get()), EPOLLIN, [this] { notice(); });
  return true;
}

void NetworkMonitor::prepareForSleep(sd_bus_message* signal) {
  int goesToSleep = 1;
  if (!isBroadcast(signal) || sd_bus_message_read(signal, "b", &goesToSleep) < 0 || goesToSleep != 0) return;
  decision.resume(clock.awakeTime());
  notice();
}

}  // namespace kestrune
