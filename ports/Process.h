#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ports/Clock.h"
#include "ports/Result.h"

namespace kestrune {

/// A child process with a pipe for each of its two outputs, used by one thread at a time. Destroying it ends
/// nothing: a child that still runs is left alone and reaped when it ends. Whoever still holds a pipe when
/// the output was read, or this is destroyed, can go on writing to it; what comes is discarded.
class Process {
 public:
  virtual ~Process() = default;

  /// Asked again and again, as by whoever waits for the end, it lets the child write 64 KiB to each pipe
  /// before that blocks, however little the kernel lets a pipe hold.
  virtual bool isRunning() = 0;

  /// Asks the child to end (SIGTERM). Nothing happens to one that has ended.
  virtual void terminate() = 0;

  /// Interrupts the child (SIGINT). Nothing happens to one that has ended.
  virtual void interrupt() = 0;

  /// Asks every process to end (SIGTERM) that the child started and that still is in its process group.
  virtual void terminateGroup() = 0;

  /// 0 only when the child ended by itself with success; a signal counts as failure. Once it has ended.
  virtual int terminationStatus() const = 0;

  /// What the child wrote: all of its standard output, then all of its standard error. Reads each pipe to its
  /// end, or until `patience` has passed because a descendant keeps it open; then takes what is there. At
  /// most 16 MiB are kept, cut between characters. Called once.
  virtual std::string readOutput(Seconds patience) = 0;
};

/// Starts child processes. Behind a port so that a test needs none. Any thread.
class Processes {
 public:
  virtual ~Processes() = default;

  /// Starts `executable` as the leader of a session of its own, with this process's environment, working
  /// directory and standard input, and no other descriptor of this process.
  virtual Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                                  const std::vector<std::string>& arguments) = 0;

  /// Ends (SIGKILL) the groups of all children that run, and from then on launches only for the calling
  /// thread; for any other thread `launch` fails. Waits for nothing. Called once, when the process is about
  /// to end.
  virtual void reserveForThisThread() = 0;
};

}  // namespace kestrune
