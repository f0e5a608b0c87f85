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

/// Whether unshare(1) makes the namespaces of these options here.
inline bool canUnshare(const std::string& options) {
  const int status = std::system(("unshare " + options + " true 2>/dev/null").c_str());
  if (!WIFEXITED(status) || WEXITSTATUS(status) == 127) throw std::runtime_error("unshare is missing");
  return WEXITSTATUS(status) == 0;
}

/// Whether other namespaces can only be had in a user namespace.
inline bool needsUserNamespace() {
  static const bool needed = geteuid() != 0 || !canUnshare("--mount");
  return needed;
}

/// Called before a test uses the namespaces of these options. Where the machine refuses them, the test is
/// skipped: as this may be a constructor, by the end of the process, in which ctest runs one test. With
/// KESTRUNE_NO_SKIPS it fails.
inline void requireNamespaces(const std::string& options) {
  if (canUnshare((needsUserNamespace() ? "--user --map-root-user " : "") + options)) return;
  const std::string why = "needs namespaces, which this machine refuses: unshare " + options;
  if (std::getenv("KESTRUNE_NO_SKIPS") != nullptr ||
      ::testing::UnitTest::GetInstance()->test_to_run_count() != 1) {
    throw std::runtime_error(why);
  }
  std::printf("[  SKIPPED ] %s\n", why.c_str());
  std::fflush(stdout);
  _exit(0);
}

/// Puts this process, which has one thread, into a mount namespace of its own, and where need be into a user
/// namespace with the same user. False when it is refused.
inline bool enterMountNamespace() {
  const std::string user = std::to_string(geteuid()), group = std::to_string(getegid());
  const bool inUserNamespace = needsUserNamespace();
  if (unshare(CLONE_NEWNS | (inUserNamespace ? CLONE_NEWUSER : 0)) != 0) return false;
  if (inUserNamespace) {
    // Without a map, no file system takes a file of this user (EOVERFLOW).
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << user + " " + user + " 1";
    std::ofstream("/proc/self/gid_map") << group + " " + group + " 1";
  }
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

}  // namespace kestrune::testing
