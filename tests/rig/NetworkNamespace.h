#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "adapters/system/System.h"
#include "tests/rig/Namespaces.h"

namespace kestrune::testing {

/// A new network namespace, whose loopback interface is down. While this object exists, the thread that made
/// it and the processes that this thread starts are in the namespace.
class NetworkNamespace {
 public:
  NetworkNamespace() : before(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    if (unshare(CLONE_NEWNET) == 0 && mayConfigureNetwork()) return;
    const std::string options = "--user --map-root-user --net";
    if (!canUnshare(options, "ip link set lo up")) skipWithoutNamespaces(options);
    runThisTestInUserNamespace();
    throw std::runtime_error("cannot run unshare");
  }
  ~NetworkNamespace() { setns(before.get(), CLONE_NEWNET); }
  NetworkNamespace(const NetworkNamespace&) = delete;
  NetworkNamespace& operator=(const NetworkNamespace&) = delete;

  /// Runs all commands in one process of ip(8), which gets `option`, such as -6.
  void ip(const std::vector<std::string>& commands, const std::string& option = "-oneline") const {
    std::FILE* const script = popen(("ip " + option + " -batch -").c_str(), "w");
    for (const auto& command : commands) std::fputs((command + "\n").c_str(), script);
    EXPECT_EQ(pclose(script), 0) << ::testing::PrintToString(commands);
  }

 private:
  /// Returns whether this process may configure the network (CAP_NET_ADMIN). A container may refuse this
  /// although it allows the namespace (CAP_SYS_ADMIN).
  static bool mayConfigureNetwork() {
    const FileDescriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq loopback{{"lo"}, {}};
    return ioctl(any.get(), SIOCSIFFLAGS, &loopback) == 0;
  }

  /// Replaces this process by unshare(1), which runs the same test in a user namespace. A process with
  /// several threads cannot enter a user namespace itself, and some sanitizers start threads.
  static void runThisTestInUserNamespace() {
    const auto* const runner = ::testing::UnitTest::GetInstance();
    if (runner->test_to_run_count() != 1) {
      throw std::runtime_error(
          "without root, run tests that need a network namespace one at a time, as ctest does");
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
