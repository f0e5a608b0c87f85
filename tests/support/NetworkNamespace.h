#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/NetlinkMessages.h"
#include "platform/posix/FileDescriptor.h"
#include "tests/support/ComesTrue.h"

namespace kestrune::testing {

/// What the kernel tells of interfaces from now on.
class LinkNews {
 public:
  LinkNews() : socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    own.nl_groups = RTMGRP_LINK;
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
      throw std::runtime_error("the kernel tells nothing");
    }
  }

  /// Returns when the kernel has told that the interface runs, or that it does not. That comes a moment after
  /// its other end went up or down, and is the last that is told of it.
  void awaitRunning(const std::string& name, bool running) {
    const int index = indexOf(name);
    for (takeMessages(); !isRunning.contains(index) || isRunning[index] != running; takeMessages()) {
      pollfd more{socket.get(), POLLIN, 0};
      if (poll(&more, 1, patienceInMilliseconds) != 1) {
        throw std::runtime_error(name + (running ? " does not come up" : " does not go down"));
      }
    }
  }

 private:
  int indexOf(const std::string& name) const {
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    const FileDescriptor any(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (ioctl(any.get(), SIOCGIFINDEX, &request) != 0) throw std::runtime_error("no interface " + name);
    return request.ifr_ifindex;
  }

  void takeMessages() {
    alignas(nlmsghdr) std::array<char, 32768> buffer;
    for (ssize_t size; (size = recv(socket.get(), buffer.data(), buffer.size(), 0)) > 0;) {
      forEachNetlinkMessage(buffer.data(), static_cast<std::size_t>(size), [this](const nlmsghdr& message) {
        if (message.nlmsg_type != RTM_NEWLINK) return true;
        const auto* const link = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
        isRunning[link->ifi_index] = (link->ifi_flags & IFF_RUNNING) != 0;
        return true;
      });
    }
  }

  const FileDescriptor socket;
  std::map<int, bool> isRunning;  // as it was told last, by index
};

/// A network of a test's own, with a loopback that is down and nothing else. The thread that made it, and the
/// processes that it starts, are in it for as long as this lives.
class NetworkNamespace {
 public:
  NetworkNamespace() : before(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    if (unshare(CLONE_NEWNET) == 0) return;
    if (geteuid() != 0) runThisTestAsRootOfItsOwn();
    throw std::runtime_error("this machine lets nobody make a network namespace");
  }
  ~NetworkNamespace() { setns(before.get(), CLONE_NEWNET); }
  NetworkNamespace(const NetworkNamespace&) = delete;
  NetworkNamespace& operator=(const NetworkNamespace&) = delete;

  /// Starts `ip` with these words; `finish` waits for its end.
  static pid_t begin(const std::string& words) {
    std::istringstream stream("ip " + words);
    std::vector<std::string> split;
    for (std::string word; stream >> word;) split.push_back(word);
    std::vector<char*> arguments;
    for (auto& word : split) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t process = -1;
    if (posix_spawnp(&process, "ip", nullptr, nullptr, arguments.data(), environ) != 0) {
      throw std::runtime_error("ip cannot be started");
    }
    return process;
  }

  static bool finish(pid_t process) {
    int status = -1;
    return waitpid(process, &status, 0) == process && status == 0;
  }

  /// Runs `ip` with these words.
  void ip(const std::string& words) const { EXPECT_TRUE(finish(begin(words))) << "ip " << words; }

  /// An Ethernet cable: `name` is plugged in here, NAME-peer is the socket on the wall. Both are up, and the
  /// kernel has told everything of that.
  void addCable(const std::string& name, const std::string& address = {}) const {
    LinkNews news;
    ip("link add " + name + " type veth peer name " + name + "-peer");
    ip("link set " + name + "-peer up");
    ip("link set " + name + " up");
    if (!address.empty()) {
      ip("address add " + address + " dev " + name +
         (address.find(':') != std::string::npos ? " nodad" : ""));
    }
    for (const auto& end : {name, name + "-peer"}) news.awaitRunning(end, true);
  }

 private:
  /// A process with threads cannot enter a user namespace, and some sanitizers start one. Replaces this
  /// process.
  static void runThisTestAsRootOfItsOwn() {
    const auto* const runner = ::testing::UnitTest::GetInstance();
    if (runner->test_to_run_count() != 1) {
      throw std::runtime_error(
          "tests with a network of their own run one at a time, as ctest does, or as root");
    }
    const auto* const test = runner->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    execlp("unshare", "unshare", "--user", "--map-root-user", "--net", "--", program.c_str(), filter.c_str(),
           nullptr);
  }

  const FileDescriptor before;
};

}  // namespace kestrune::testing
