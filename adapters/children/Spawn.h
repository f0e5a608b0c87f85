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
  /// More variables for the child, each as "NAME=VALUE". The child also gets the variables of this process.
  /// If a name occurs in both, getenv(3) returns the value given here.
  std::vector<std::string> environment{};
};

/// Starts a child in a session of its own (setsid), with default signal handling and no signal blocked.
/// Returns 0 and sets `pid`, or returns an errno value. Any thread.
int spawn(const SpawnOptions& options, pid_t& pid);

}  // namespace kestrune
