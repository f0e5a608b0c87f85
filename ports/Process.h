#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ports/Clock.h"
#include "ports/Result.h"

namespace kestrune {

/// A child process, with one pipe for its standard output and one for its standard error. Used by one thread
/// at a time. The destructor neither ends the child nor waits for its end. A later `Processes::launch` reaps
/// the child. After `readOutput` or the destructor, the child and its descendants can still write to the
/// pipes; this output is discarded.
class Process {
 public:
  virtual ~Process() = default;

  /// Returns whether the child is running; does not block. The kernel may make a pipe smaller than 64 KiB
  /// (see pipe-user-pages-soft in pipe(7)). Call this repeatedly while you wait for the child's end: it reads
  /// from a full pipe, so that the child can write 64 KiB to each. A child that writes more may block until
  /// `readOutput` is called.
  virtual bool isRunning() = 0;

  /// Sends SIGTERM (`terminate`) or SIGINT (`interrupt`) to the child, unless it has ended.
  virtual void terminate() = 0;
  virtual void interrupt() = 0;

  /// Sends SIGTERM to every process in the child's process group.
  virtual void terminateGroup() = 0;

  /// Returns the child's exit status; not 0 if a signal killed the child. Call this after the child's end.
  virtual int terminationStatus() const = 0;

  /// Returns the child's standard output, followed by its standard error. Reads each pipe until end of file,
  /// but stops after `patience`, because a descendant of the child may keep a pipe open. Discards what
  /// exceeds 16 MiB in total, and splits no UTF-8 character. Call this at most once.
  virtual std::string readOutput(Seconds patience) = 0;
};

/// Starts child processes. Any thread.
class Processes {
 public:
  virtual ~Processes() = default;

  /// Starts `executable` as the leader of a new session. The child inherits the environment, the working
  /// directory and standard input. Its standard output and standard error are pipes. It has no other open
  /// descriptor.
  virtual Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                                  const std::vector<std::string>& arguments) = 0;

  /// Sends SIGKILL to the process groups of all running children, and does not wait for the children. From
  /// then on, `launch` fails on every thread except the calling thread, which can still launch the child that
  /// stops the backend. Waits at most 200 ms for a `launch` in progress on another thread, which then kills
  /// its child and fails. Call this once, shortly before this process ends.
  virtual void reserveForThisThread() = 0;
};

}  // namespace kestrune
