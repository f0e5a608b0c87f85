#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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

}  // namespace kestrune::testing
