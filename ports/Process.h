#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ports/Clock.h"
#include "ports/Result.h"

namespace kestrune {

/// A child process, with one pipe for its standard output and one for its standard error. Used by one thread
/// at a time. The destructor does not end the child: if the child still runs, a later launch reaps it
/// after its end. After `readOutput` or the destructor, the child and its descendants can still write to the
/// pipes; this output is discarded.
class Process {
 public:
  virtual ~Process() = default;

  /// Returns whether the child is running. Also reads from full pipes: if this is called repeatedly, the
  /// child can write 64 KiB to each pipe before it blocks, even if the kernel made the pipe smaller.
  virtual bool isRunning() = 0;

  /// Sends SIGTERM to the child, unless it has ended.
  virtual void terminate() = 0;

  /// Sends SIGINT to the child, unless it has ended.
  virtual void interrupt() = 0;

  /// Sends SIGTERM to every process in the child's process group.
  virtual void terminateGroup() = 0;

  /// Returns the child's exit status; not 0 if a signal killed the child. Call this after the child has
  /// ended.
  virtual int terminationStatus() const = 0;

  /// Returns the child's whole standard output, followed by its whole standard error. Reads each pipe to its
  /// end, but stops after `patience` if a descendant of the child keeps a pipe open. Keeps at most 16 MiB,
  /// cut between characters. Called once.
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

  /// Sends SIGKILL to the process groups of all running children. From then on, `launch` fails on every
  /// thread except the calling thread. Does not wait for the children. Called once, before this process ends.
  virtual void reserveForThisThread() = 0;
};

}  // namespace kestrune
