#include "adapters/children/Spawn.h"

#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

extern char** environ;

namespace kestrune {

int spawn(const SpawnOptions& options, pid_t& pid) {
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  sigset_t signals;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(
      &attributes, static_cast<short>(POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, options.input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, options.output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, options.error, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

  std::vector<char*> argv{const_cast<char*>(options.executable.c_str())};
  for (const auto& each : options.arguments) argv.push_back(const_cast<char*>(each.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> environment;
  for (const auto& each : options.environment) environment.push_back(const_cast<char*>(each.c_str()));
  for (char** each = environ; *each != nullptr; ++each) environment.push_back(*each);
  environment.push_back(nullptr);
  errno = 0;
  int failure =
      posix_spawnp(&pid, options.executable.c_str(), &actions, &attributes, argv.data(), environment.data());
  // If clone(2) fails, posix_spawnp returns EPERM in glibc before 2.36. The real error is in errno.
  if (failure == EPERM && errno != 0) failure = errno;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return failure;
}

}  // namespace kestrune
