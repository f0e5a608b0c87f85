#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

namespace kestrune::testing {

/// Returns whether unshare(1) can make namespaces with these options, and `command` succeeds in them.
inline bool canUnshare(const std::string& options, const std::string& command = "true") {
  const int status = std::system(("unshare " + options + " " + command + " 2>/dev/null").c_str());
  if (!WIFEXITED(status) || WEXITSTATUS(status) == 127) throw std::runtime_error("unshare is missing");
  return WEXITSTATUS(status) == 0;
}

/// Returns whether this process needs a user namespace to make other namespaces.
inline bool needsUserNamespace() {
  static const bool needed = geteuid() != 0 || !canUnshare("--mount");
  return needed;
}

/// Skips the running test, because the machine refuses `unshare` with these options. Ends the process:
/// GTEST_SKIP() would only return from this function, and the test would go on. Throws if the process runs
/// several tests or KESTRUNE_NO_SKIPS is set.
inline void skipWithoutNamespaces(const std::string& options) {
  const std::string why = "needs namespaces, which this machine refuses: unshare " + options;
  if (std::getenv("KESTRUNE_NO_SKIPS") != nullptr ||
      ::testing::UnitTest::GetInstance()->test_to_run_count() != 1) {
    throw std::runtime_error(why);
  }
  std::printf("[  SKIPPED ] %s\n", why.c_str());
  std::fflush(stdout);
  _exit(0);
}

/// Skips the running test if the machine refuses `unshare` with these options.
inline void requireNamespaces(const std::string& options) {
  if (!canUnshare((needsUserNamespace() ? "--user --map-root-user " : "") + options)) {
    skipWithoutNamespaces(options);
  }
}

/// Moves this process into a new mount namespace, and if necessary into a new user namespace with the same
/// user. The process must have only one thread. Returns false if the kernel refuses.
inline bool enterMountNamespace() {
  const std::string user = std::to_string(geteuid()), group = std::to_string(getegid());
  const bool inUserNamespace = needsUserNamespace();
  if (unshare(CLONE_NEWNS | (inUserNamespace ? CLONE_NEWUSER : 0)) != 0) return false;
  if (inUserNamespace) {
    // Map the user and the group to themselves. Without a mapping, creating a file fails with EOVERFLOW.
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << user + " " + user + " 1";
    std::ofstream("/proc/self/gid_map") << group + " " + group + " 1";
  }
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

}  // namespace kestrune::testing
