#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ports/Clock.h"

namespace kestrune {

using Job = std::function<void()>;

/// Runs jobs one at a time, in the order in which they were posted.
class DispatchQueue {
 public:
  /// Does not wait for a running job; it finishes by itself.
  virtual ~DispatchQueue() = default;

  virtual const std::string& label() const = 0;

  /// Queues `job` and returns; the job never runs before this returns. Any thread.
  virtual void async(Job job) = 0;

  /// Drops the jobs that have not begun, and all later ones. Does not wait for a running job. Main thread.
  virtual void close() = 0;
};

/// The queue of the main thread, run by the application's loop.
class MainQueue : public DispatchQueue {
 public:
  /// Like `async`, but runs `job` after at least `delay`, not counting time suspended. Any thread.
  virtual void asyncAfter(Seconds delay, Job job) = 0;
};

enum class QualityOfService { standard, userInitiated };

/// Where the jobs of a serial queue run: on a thread of its own, or between other jobs on the main thread.
enum class QueueTarget { ownThread, mainThread };

/// Creates the queues of the process.
class Dispatch {
 public:
  virtual ~Dispatch() = default;

  virtual MainQueue& mainQueue() = 0;

  /// Main thread. Never null.
  virtual std::unique_ptr<DispatchQueue> makeSerialQueue(std::string label, QualityOfService qualityOfService,
                                                         QueueTarget target) = 0;
};

}  // namespace kestrune
