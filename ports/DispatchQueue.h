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
  /// Does not wait for the running job, which finishes by itself. A job that runs on the main thread must not
  /// destroy its own queue.
  virtual ~DispatchQueue() = default;

  virtual const std::string& label() const = 0;

  /// Queues `job` and returns. The call itself never runs `job`. Any thread.
  virtual void async(Job job) = 0;

  /// Drops all jobs that have not begun, and all jobs posted later. Does not wait for the running job, which
  /// finishes by itself. Main thread.
  virtual void close() = 0;
};

/// The queue of the main thread. The application's main loop runs its jobs.
class MainQueue : public DispatchQueue {
 public:
  /// Like `async`, but runs `job` after at least `delay`, not counting time in suspend. Any thread.
  virtual void asyncAfter(Seconds delay, Job job) = 0;
};

enum class QualityOfService { standard, userInitiated };

/// Where the jobs of a serial queue run: on the queue's own thread, or on the main thread between other jobs.
enum class QueueTarget { ownThread, mainThread };

/// Creates the queues of the process.
class Dispatch {
 public:
  virtual ~Dispatch() = default;

  virtual MainQueue& mainQueue() = 0;

  /// Returns a new queue, never null. Main thread.
  virtual std::unique_ptr<DispatchQueue> makeSerialQueue(std::string label, QualityOfService qualityOfService,
                                                         QueueTarget target) = 0;
};

}  // namespace kestrune
