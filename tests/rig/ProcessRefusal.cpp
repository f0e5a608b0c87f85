#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

// To be loaded into a program before all else: as long as the file that a variable names is there, the system
// has neither a process nor a thread to spare, and the named pipe of another variable is told of each
// attempt. Unlike the limits of the system, this binds root, too.

namespace {

bool refused() {
  const char* const file = std::getenv("KESTRUNE_TEST_REFUSAL");
  if (file == nullptr || access(file, F_OK) != 0) return false;
  const char* const told = std::getenv("KESTRUNE_TEST_REFUSED");
  if (const int pipe = told != nullptr ? open(told, O_WRONLY | O_NONBLOCK | O_CLOEXEC) : -1; pipe >= 0) {
    static_cast<void>(!write(pipe, "refused\n", 8));
    close(pipe);
  }
  return true;
}

template <typename Function>
Function* original(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment) {
  if (refused()) return EAGAIN;
  return original<decltype(posix_spawnp)>("posix_spawnp")(pid, file, actions, attributes, arguments,
                                                          environment);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) {
  if (refused()) return EAGAIN;
  return original<decltype(pthread_create)>("pthread_create")(thread, attributes, routine, argument);
}
}
