#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "ports/Application.h"
#include "ports/DispatchQueue.h"
#include "ports/Timer.h"

namespace kestrune {

struct EventSourceDeleter {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
/// A source of the loop, taken out of it when this goes.
using EventSource = std::unique_ptr<sd_event_source, EventSourceDeleter>;

/// The main loop on sd-event, with all that it runs: the main queue, timers, and the signals that end the
/// process. Make it before the first thread starts, and call it on that same thread: it blocks signals for
/// the whole process.
class EventLoop final : public Application, public Dispatch, public Timers {
 public:
  EventLoop();
  ~EventLoop() override;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  sd_event* event() const { return loop; }

  /// Runs the loop until `done` says so or the application was asked to terminate.
  void runUntil(const std::function<bool()>& done);

  /// Calls `handler` on the main thread for each signal of that number from now on.
  EventSource onSignal(int signalNumber, std::function<void()> handler);
  /// Calls `handler` once on the main thread when `delay` has passed; time asleep does not count.
  EventSource after(Seconds delay, std::function<void()> handler);
  /// Calls `handler` on the main thread whenever `events` (EPOLLIN, EPOLLOUT) are true of the descriptor.
  /// Null for a descriptor that cannot be waited for, such as that of a regular file.
  EventSource onDescriptor(int descriptor, unsigned events, std::function<void()> handler);

  /// Takes over a child that nobody else waits for: reaps it when it ends.
  void reap(pid_t child);
  /// The same for the children that this process had before it became the running program.
  void reapInherited();
  /// Sends a signal to a child that was given to `reap`; nothing happens when it has ended.
  void signalChild(pid_t child, int signalNumber);

  /// `close` runs once when the application terminates, before its delegate is told.
  void onTerminate(std::function<void()> close) { beforeTermination = std::move(close); }

  // Application
  void setActivationPolicy(ActivationPolicy policy) override;
  int run(ApplicationDelegate& delegate) override;
  void terminate() override;

  // Dispatch
  MainQueue& mainQueue() override;
  std::unique_ptr<DispatchQueue> makeSerialQueue(std::string label, QualityOfService qualityOfService,
                                                 QueueTarget target) override;

  // Timers
  std::unique_ptr<Timer> scheduleRepeating(Seconds interval, std::function<void()> action) override;

 private:
  class LoopQueue;

  EventSource at(std::uint64_t due, std::function<void()> handler);

  sd_event* loop = nullptr;
  std::unique_ptr<LoopQueue> queue;
  std::unique_ptr<EventSource[]> terminationSignals;
  std::map<pid_t, EventSource> children;  // that are reaped here
  std::vector<pid_t> unwatched;           // those that are reaped whenever there is another one
  std::function<void()> beforeTermination;
  bool terminating = false;
};

}  // namespace kestrune
