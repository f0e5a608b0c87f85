#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "ports/Clock.h"

namespace kestrune {

/// Is told of the start and the end of an application. All calls are made on the main thread.
class ApplicationDelegate {
 public:
  virtual ~ApplicationDelegate() = default;

  /// Called once, when the main loop starts.
  virtual void applicationDidFinishLaunching() = 0;

  /// Called once, after the main loop has ended and before the process ends.
  virtual void applicationWillTerminate() = 0;
};

/// A regular application has a main window and an entry in the list of running programs; an accessory has
/// only its item in the status bar.
enum class ActivationPolicy { regular = 0, accessory = 1 };

/// Tells the desktop how to show this process. Runs the main loop. Main thread.
class Application {
 public:
  virtual ~Application() = default;

  virtual void setActivationPolicy(ActivationPolicy policy) = 0;

  /// Runs the main loop until `terminate` is called, and tells `delegate` of the start and the end. Returns
  /// the exit status of the process. Called once.
  virtual int run(ApplicationDelegate& delegate) = 0;

  /// Ends the main loop as soon as the running callback has returned. Further calls do nothing.
  virtual void terminate() = 0;
};

using Job = std::function<void()>;

/// Runs jobs one at a time, in the order in which they were posted.
class DispatchQueue {
 public:
  /// Does the same as `close`. Main thread. Exception: if the queue has a thread of its own, one of its jobs
  /// may destroy the queue.
  virtual ~DispatchQueue() = default;

  /// Queues `job` and returns. The call itself never runs `job`. Any thread.
  virtual void async(Job job) = 0;

  /// Drops all jobs that have not begun, and all jobs posted later. Does not wait for the running job, which
  /// finishes by itself. Main thread.
  virtual void close() = 0;
};

/// A queue whose jobs run on the main thread, in the application's main loop.
class MainQueue : public DispatchQueue {
 public:
  /// Like `async`, but runs `job` after at least `delay`, not counting time in suspend. Any thread.
  virtual void asyncAfter(Seconds delay, Job job) = 0;
};

enum class QualityOfService { standard, userInitiated };

enum class QueueTarget { ownThread, mainThread };

/// A running timer. The destructor stops it.
class Timer {
 public:
  virtual ~Timer() = default;

  /// Stops the timer: the action does not run again. May be called more than once. Main thread.
  virtual void invalidate() = 0;
};

/// Creates the queues and the timers of the process.
class Dispatch {
 public:
  virtual ~Dispatch() = default;

  virtual MainQueue& mainQueue() = 0;

  /// Returns a new queue, never null. Main thread.
  virtual std::unique_ptr<DispatchQueue> makeSerialQueue(std::string label, QualityOfService qualityOfService,
                                                         QueueTarget target) = 0;

  /// Runs `action` on the main thread every `interval`, first after one interval. The interval includes
  /// time in suspend. If several runs are overdue after a suspend, or because the main thread was busy, runs
  /// `action` only once for all of them. `action` may destroy the timer. Main thread.
  virtual std::unique_ptr<Timer> scheduleRepeating(Seconds interval, std::function<void()> action) = 0;
};

}  // namespace kestrune
