#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ports/Clock.h"
#include "ports/Result.h"

namespace kestrune {

/// A child process with one pipe for standard output and one for standard error. Used by one thread at a
/// time. The destructor does not end the child; the child is reaped when it ends. After `readOutput` or the
/// destructor, processes that hold the pipes can still write to them; that output is discarded.
class Process {
 public:
  virtual ~Process() = default;

  /// Also drains full pipes: if it is called repeatedly, the child can write 64 KiB to each pipe before it
  /// blocks, however small the kernel made the pipe.
  virtual bool isRunning() = 0;

  /// Sends SIGTERM to the child, unless it has ended.
  virtual void terminate() = 0;

  /// Sends SIGINT to the child, unless it has ended.
  virtual void interrupt() = 0;

  /// Sends SIGTERM to every process in the child's process group.
  virtual void terminateGroup() = 0;

  /// 0 only when the child exited with status 0; death by a signal is a failure. Call it after the child has
  /// ended.
  virtual int terminationStatus() const = 0;

  /// The child's whole standard output, followed by its whole standard error. Reads each pipe to its end; if
  /// a descendant keeps one open, stops after `patience`. Keeps at most 16 MiB, cut between characters.
  /// Called once.
  virtual std::string readOutput(Seconds patience) = 0;
};

/// Starts child processes. Any thread.
class Processes {
 public:
  virtual ~Processes() = default;

  /// Starts `executable` as the leader of a new session. The child inherits the environment, the working
  /// directory and standard input, but no other descriptor.
  virtual Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                                  const std::vector<std::string>& arguments) = 0;

  /// Sends SIGKILL to the process groups of all running children. Afterwards `launch` works only on the
  /// calling thread and fails on all others. Does not wait. Called once, before the process ends.
  virtual void reserveForThisThread() = 0;
};

}  // namespace kestrune
