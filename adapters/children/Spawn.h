#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestrune {

/// How a child process is started.
struct SpawnOptions {
  std::string executable;              ///< looked up on PATH when it has no slash
  std::vector<std::string> arguments;  ///< without the name of the program
  int input = 0;  ///< the descriptors that the child gets as its first three, and no others
  int output = 1;
  int error = 2;
  std::vector<std::string> environment{};  ///< "NAME=VALUE", besides this process's own
};

/// Starts a child with default signal handling and an empty signal mask, as the leader of a session of its
/// own. Returns 0, or the system's number for why it could not be started; then `pid` means nothing. Any
/// thread.
int spawn(const SpawnOptions& options, pid_t& pid);

}  // namespace kestrune
