#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestrune {

/// How a child process is started.
struct SpawnOptions {
  std::string executable;              ///< looked up on PATH when it has no slash
  std::vector<std::string> arguments;  ///< without the name of the program
  int input = 0;                       ///< the child's standard streams; it inherits no other descriptor
  int output = 1;
  int error = 2;
  std::vector<std::string> environment{};  ///< "NAME=VALUE", added to the environment of this process
};

/// Starts a child in a session of its own (setsid), with default signal dispositions and an empty signal
/// mask. Returns 0 and sets `pid`, or returns an errno value. Any thread.
int spawn(const SpawnOptions& options, pid_t& pid);

}  // namespace kestrune
