#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "adapters/system/FileDescriptor.h"
#include "tests/rig/Namespaces.h"

namespace kestrune::testing {

/// A network of a test's own, with a loopback that is down and nothing else. The thread that made it, and the
/// processes that it starts, are in it for as long as this lives.
class NetworkNamespace {
 public:
  NetworkNamespace() : before(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    if (unshare(CLONE_NEWNET) == 0) return;
    requireNamespaces("--net");
    runThisTestAsRootOfItsOwn();
    throw std::runtime_error("this machine lets nobody make a network namespace");
  }
  ~NetworkNamespace() { setns(before.get(), CLONE_NEWNET); }
  NetworkNamespace(const NetworkNamespace&) = delete;
  NetworkNamespace& operator=(const NetworkNamespace&) = delete;

  /// Runs these commands in one process of `ip`, with an option of its own such as -6.
  void ip(const std::vector<std::string>& commands, std::string option = "-oneline") const {
    const FileDescriptor script(memfd_create("commands", MFD_CLOEXEC));
    for (const auto& command : commands) dprintf(script.get(), "%s\n", command.c_str());
    lseek(script.get(), 0, SEEK_SET);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, script.get(), STDIN_FILENO);
    std::array<std::string, 4> words{"ip", std::move(option), "-batch", "-"};
    std::array<char*, 5> arguments{words[0].data(), words[1].data(), words[2].data(), words[3].data()};
    pid_t process = -1;
    int status = -1;
    const bool started = posix_spawnp(&process, "ip", &actions, nullptr, arguments.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_TRUE(started && waitpid(process, &status, 0) == process && status == 0)
        << ::testing::PrintToString(commands);
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
