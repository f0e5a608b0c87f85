#include "platform/linux/RouteSocket.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/linux/NetlinkMessages.h"

namespace kestrune {

namespace {

constexpr std::size_t messageSize = 8192;
constexpr std::size_t pieceSize = 32768;  // the largest that the kernel fills
constexpr int messagesAtATime = 4096;     // more than the socket holds
constexpr int piecesAtATime = 8;
constexpr int attemptsAtAConsistentReading = 3;

FileDescriptor openSocket() {
  FileDescriptor opened(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  if (opened && bind(opened.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) opened.reset();
  return opened;
}

/// The size of what was read, 0 for what did not come from the kernel, -1 with errno otherwise; EMSGSIZE when
/// it did not fit.
ssize_t receiveFromKernel(int descriptor, char* buffer, std::size_t size) {
  sockaddr_nl sender{};
  iovec place{buffer, size};
  msghdr message{};
  message.msg_name = &sender;
  message.msg_namelen = sizeof sender;
  message.msg_iov = &place;
  message.msg_iovlen = 1;
  ssize_t count = 0;
  do {
    count = recvmsg(descriptor, &message, 0);
  } while (count < 0 && errno == EINTR);
  if (count < 0) return count;
  if (message.msg_namelen != sizeof sender || sender.nl_pid != 0) return 0;
  if ((message.msg_flags & MSG_TRUNC) != 0) {
    errno = EMSGSIZE;
    return -1;
  }
  return count;
}

/// What NLMSG_ERROR and NLMSG_DONE carry: a negative errno, or 0.
int failureIn(const nlmsghdr& message) {
  std::int32_t code = 0;
  if (mnl_nlmsg_get_payload_len(&message) >= sizeof code) {
    std::memcpy(&code, mnl_nlmsg_get_payload(&message), sizeof code);
  }
  return -code;
}

}  // namespace

RouteListener::RouteListener() : socket(openSocket()) {
  for (int group : {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE}) {
    if (socket && setsockopt(socket.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) == 0)
      continue;
    openError = errno;
    socket.reset();
    return;
  }
  // Kernels before 5.3 have no such objects.
  const int nextHops = RTNLGRP_NEXTHOP;
  static_cast<void>(
      setsockopt(socket.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &nextHops, sizeof nextHops));
}

bool RouteListener::takeMessages() {
  bool concerned = false;
  alignas(nlmsghdr) std::array<char, messageSize> buffer;
  for (int taken = 0; taken < messagesAtATime; ++taken) {
    const ssize_t size = receiveFromKernel(socket.get(), buffer.data(), buffer.size());
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (size < 0) {
      concerned = true;
      continue;
    }
    forEachNetlinkMessage(buffer.data(), static_cast<std::size_t>(size),
                          [&concerned](const nlmsghdr& message) {
                            concerned = concerned || concernsDefaultRoute(message);
                            return true;
                          });
  }
  return concerned;
}

RouteReading::RouteReading(EventLoop& givenLoop, Completion givenCompletion)
    : loop(givenLoop), completion(std::move(givenCompletion)), socket(openSocket()) {
  if (!socket) {
    refused = loop.after(Seconds{0}, [this, error = errno] { finish(error); });
    return;
  }
  sockaddr_nl own{};
  socklen_t size = sizeof own;
  getsockname(socket.get(), reinterpret_cast<sockaddr*>(&own), &size);
  portId = own.nl_pid;
  readable = loop.onDescriptor(socket.get(), EPOLLIN, [this] { receive(); });
  begin();
}

void RouteReading::begin() {
  ++attempts;
  changedMeanwhile = false;
  table = {};
  request(Step::interfaces);
}

void RouteReading::request(Step next) {
  step = next;
  alignas(nlmsghdr) std::array<char, 64> buffer{};
  nlmsghdr* const message = mnl_nlmsg_put_header(buffer.data());
  message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message->nlmsg_seq = ++sequence;
  switch (step) {
    case Step::interfaces:
      message->nlmsg_type = RTM_GETLINK;
      mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
      mnl_attr_put_u32(message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
      break;
    case Step::routes:
      message->nlmsg_type = RTM_GETROUTE;
      mnl_nlmsg_put_extra_header(message, sizeof(rtmsg));
      break;
    case Step::nextHopObjects:
      message->nlmsg_type = RTM_GETNEXTHOP;
      mnl_nlmsg_put_extra_header(message, sizeof(nhmsg));
      break;
  }
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(socket.get(), message, message->nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel),
             sizeof kernel) < 0) {
    refused = loop.after(Seconds{0}, [this, error = errno] { finish(error); });
  }
}

void RouteReading::receive() {
  // Aligned as memory from the heap is.
  std::vector<char> buffer(pieceSize);
  for (int taken = 0; taken < piecesAtATime; ++taken) {
    const ssize_t size = receiveFromKernel(socket.get(), buffer.data(), buffer.size());
    if (size < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK) finish(errno);
      return;
    }
    if (!take(buffer, static_cast<std::size_t>(size))) return;
  }
}

/// False when this has finished, and is perhaps no more.
bool RouteReading::take(const std::vector<char>& buffer, std::size_t size) {
  bool goesOn = true;
  forEachNetlinkMessage(buffer.data(), size, [this, &goesOn](const nlmsghdr& message) {
    if (!mnl_nlmsg_seq_ok(&message, sequence) || !mnl_nlmsg_portid_ok(&message, portId)) return true;
    if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) changedMeanwhile = true;
    if (message.nlmsg_type == NLMSG_ERROR || message.nlmsg_type == NLMSG_DONE) {
      goesOn = stepEnded(failureIn(message));
      return false;
    }
    table.add(message);
    return true;
  });
  return goesOn;
}

/// As `take`.
bool RouteReading::stepEnded(int failure) {
  // Who uses no such objects may run a kernel that knows none.
  if (failure != 0 && step != Step::nextHopObjects) {
    finish(failure);
    return false;
  }
  if (step == Step::interfaces) {
    request(Step::routes);
    return true;
  }
  if (step == Step::routes && table.needsNextHopObjects()) {
    request(Step::nextHopObjects);
    return true;
  }
  // Where something changes all the time, what was read is the best there is.
  if (changedMeanwhile && attempts < attemptsAtAConsistentReading) {
    begin();
    return true;
  }
  finish(0);
  return false;
}

void RouteReading::finish(int failure) {
  const Completion done = std::move(completion);
  done(failure == 0 ? std::optional(std::move(table)) : std::nullopt, failure);
}

}  // namespace kestrune
