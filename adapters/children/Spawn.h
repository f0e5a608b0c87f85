#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestrune {

struct SpawnOptions {
  std::string executable;              ///< looked up on PATH when it has no slash
  std::vector<std::string> arguments;  ///< without argv[0], the name of the program
  /// Descriptors for the child's standard streams. The child inherits no other descriptor.
  int input = 0;
  int output = 1;
  int error = 2;
  /// "NAME=VALUE" each. The child gets these variables and those of this process.
  std::vector<std::string> environment{};
};

/// Starts a child in a session of its own (setsid), with default signal handling and no signal blocked.
/// Returns 0 and sets `pid`, or returns an errno value. Any thread.
int spawn(const SpawnOptions& options, pid_t& pid);

}  // namespace kestrune
