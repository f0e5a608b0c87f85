#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/RouteSocket.h"
#include "platform/posix/FileDescriptor.h"

namespace kestrune::testing {

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

  /// An Ethernet cable: `name` is plugged in here, NAME-peer is the socket on the wall. Both are up.
  void addCable(const std::string& name, const std::string& address) const {
    RouteListener news;
    ip("link add " + name + " type veth peer name " + name + "-peer");
    ip("link set " + name + "-peer up");
    ip("link set " + name + " up");
    ip("address add " + address + " dev " + name + (address.find(':') != std::string::npos ? " nodad" : ""));
    // The kernel says so a moment after the carrier is there.
    while (!isRunning(name)) {
      pollfd more{news.descriptor(), POLLIN, 0};
      if (poll(&more, 1, 5000) != 1) throw std::runtime_error(name + " does not come up");
      news.takeMessages();
    }
  }

 private:
  static bool isRunning(const std::string& name) {
    const FileDescriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return ioctl(any.get(), SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0;
  }

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
