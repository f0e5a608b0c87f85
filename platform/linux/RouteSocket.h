#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/EventLoop.h"
#include "platform/linux/RouteTable.h"
#include "platform/posix/FileDescriptor.h"

namespace kestrune {

/// Hears what the kernel says unasked of interfaces and routes.
class RouteListener {
 public:
  /// Listens from now on. Without a socket, `isOpen` is false and `error` says why.
  RouteListener();

  bool isOpen() const { return static_cast<bool>(socket); }
  int error() const { return openError; }  ///< errno; 0 when it is open
  int descriptor() const { return socket.get(); }

  /// Takes all that waits, without blocking. Returns whether the default route may be another now; also when
  /// messages were lost. What other processes send counts for nothing.
  bool takeMessages();

 private:
  FileDescriptor socket;
  int openError = 0;
};

/// One reading of the interfaces and the routes, a piece at a time between other work of the loop. Destroying
/// it gives it up. Main thread.
class RouteReading {
 public:
  /// Without a table the kernel refused, and `error` is an errno.
  using Completion = std::function<void(std::optional<RouteTable> table, int error)>;

  /// Calls `completion` once, never before this returns.
  RouteReading(EventLoop& loop, Completion completion);

 private:
  enum class Step { interfaces, routes, nextHopObjects };

  void begin();
  void request(Step next);
  void receive();
  bool take(const std::vector<char>& buffer, std::size_t size);
  bool stepEnded(int failure);
  void finish(int failure);

  EventLoop& loop;
  Completion completion;
  FileDescriptor socket;
  EventSource readable;
  EventSource refused;
  RouteTable table;
  Step step = Step::interfaces;
  unsigned sequence = 0;
  unsigned portId = 0;
  int attempts = 0;
  bool changedMeanwhile = false;
};

}  // namespace kestrune
