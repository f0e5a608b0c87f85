#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <ctime>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "ports/Clock.h"
#include "ports/Loop.h"

namespace kestrune {

/// Returns the current time of a kernel clock, such as CLOCK_MONOTONIC. Any thread.
inline Seconds timeOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// Implements the port Clock with the clocks of the kernel. Any thread.
class SystemClock final : public Clock {
 public:
  Seconds awakeTime() const override { return timeOf(CLOCK_MONOTONIC); }
  Seconds continuousTime() const override { return timeOf(CLOCK_BOOTTIME); }
  std::int64_t calendarTime() const override { return std::time(nullptr); }
  void sleep(Seconds duration) override { std::this_thread::sleep_for(duration); }
};

struct EventSourceDeleter {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
/// An event source of the loop. The destructor removes it from the loop.
using EventSource = std::unique_ptr<sd_event_source, EventSourceDeleter>;

/// The main loop, on sd-event: the main queue, timers, descriptors, children, and the signals that end the
/// process. Construct it before the first thread starts, because it blocks signals for the whole process.
/// Call its functions on the thread that constructed it.
class EventLoop final : public Application, public Dispatch {
 public:
  EventLoop();
  ~EventLoop() override { sd_event_unref(loop); }  // each event source keeps the sd_event until its own end

  sd_event* event() const { return loop; }

  /// Runs the loop until `done` returns true or `terminate` has been called.
  void runUntil(const std::function<bool()>& done);

  /// Unblocks SIGTERM, SIGINT, SIGHUP and SIGQUIT: each then has its inherited disposition, which is normally
  /// to end the process. Call this before a long wait that does not run the loop, in a process that needs no
  /// cleanup at its end.
  void unblockEndingSignals();

  /// Blocks the signal, and calls `handler` on the main thread each time the signal arrives. If other threads
  /// run, they must block the signal too: the constructor blocks SIGCONT and SIGWINCH for this reason.
  EventSource onSignal(int signalNumber, std::function<void()> handler);
  /// Calls `handler` once on the main thread after `delay`. Time in suspend does not count (CLOCK_MONOTONIC).
  EventSource after(Seconds delay, std::function<void()> handler) {
    return at(CLOCK_MONOTONIC, timeOf(CLOCK_MONOTONIC) + delay, std::move(handler));
  }
  /// Calls `handler` on the main thread while the descriptor is ready for one of `events` (EPOLLIN,
  /// EPOLLOUT). This is level-triggered, unless `events` contains EPOLLET. Returns null for a descriptor that
  /// epoll refuses with EPERM, such as a regular file.
  EventSource onDescriptor(int descriptor, unsigned events, std::function<void()> handler);

  /// Reaps `child` when it ends. No other code may wait for this child.
  void reap(pid_t child) {
    children.insert(child);
    reapEnded();  // the child may have ended, and its SIGCHLD may have been handled already
  }
  /// Calls `reap` for every child that was started before this process called execve.
  void reapInherited();
  /// Sends a signal to a child that was given to `reap`. Does nothing when the child has been reaped.
  void signalChild(pid_t child, int signalNumber);

  /// Sets a function that runs once, just before applicationWillTerminate of the delegate.
  void onTerminate(std::function<void()> close) { beforeTermination = std::move(close); }

  // from the port Application
  void setActivationPolicy(ActivationPolicy) override {}  // this process has no window that a dock could show
  int run(ApplicationDelegate& delegate) override;
  void terminate() override { terminating = true; }

  // from the port Dispatch
  MainQueue& mainQueue() override { return *queue; }
  std::unique_ptr<DispatchQueue> makeSerialQueue(std::string label, QualityOfService qualityOfService,
                                                 QueueTarget target) override;
  std::unique_ptr<Timer> scheduleRepeating(Seconds interval, std::function<void()> action) override;

 private:
  class LoopQueue;
  class LoopTimer;

  EventSource at(clockid_t clock, Seconds due, std::function<void()> handler);
  void reapEnded();

  sd_event* loop = nullptr;
  std::unique_ptr<MainQueue> queue;
  std::vector<EventSource> signals;
  std::set<pid_t> children;  // children that were given to `reap` and have not been reaped yet
  std::function<void()> beforeTermination;
  bool terminating = false;
};

}  // namespace kestrune
