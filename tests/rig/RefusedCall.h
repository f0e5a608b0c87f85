#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <stdexcept>

namespace kestrune::testing {

/// Installs a seccomp filter in the calling thread. The thread's children inherit the filter, and nothing can
/// remove it. Therefore call this function only in a ForkedProgram.
inline void install(const sock_fprog& program) {
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    throw std::runtime_error("cannot install a seccomp filter");
  }
}

/// From now on, a seccomp filter answers the system call `number` with `action` (SECCOMP_RET_…), in this
/// thread and its children.
inline void answerCall(int number, unsigned action) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, action),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  install({sizeof filter / sizeof *filter, filter});
}

/// From now on, the system call `number` has no effect and fails with `error`, or returns 0 if `error` is 0.
inline void refuseCall(int number, int error) {
  answerCall(number, SECCOMP_RET_ERRNO | static_cast<unsigned>(error));
}

/// From now on, sendto fails with `error` for messages of `length` bytes.
inline void refuseSending(unsigned length, int error) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sendto, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, length, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  install({sizeof filter / sizeof *filter, filter});
}

/// From now on, a seccomp filter answers any rename call with `action` (SECCOMP_RET_…).
inline void answerRenames(unsigned action) {
#ifdef SYS_rename
  answerCall(SYS_rename, action);
#endif
  answerCall(SYS_renameat, action);
  answerCall(SYS_renameat2, action);
}

/// From now on, every attempt to make a hard link fails with `error`, as on a file system without hard links.
inline void refuseHardLinks(int error) {
#ifdef SYS_link
  refuseCall(SYS_link, error);
#endif
  refuseCall(SYS_linkat, error);
}

/// From now on, fsync does nothing and reports success. A real fsync takes nearly all the time of a save, so
/// a kill at a random moment would hardly ever hit another step of the save.
inline void skipFlushes() {
  refuseCall(SYS_fsync, 0);
}

}  // namespace kestrune::testing
