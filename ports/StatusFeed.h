#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ports/Result.h"

namespace kestrune {

/// A subscription to the client's status. Destroying it ends the subscription. Main thread.
using StatusSubscription = std::shared_ptr<void>;

/// Returns the newest status as one line, without a line end.
using StatusLine = std::function<std::string()>;

/// Publishes the client's status to the user's other processes, and lets them subscribe to it. Also receives
/// their requests. Main thread.
class StatusFeed {
 public:
  virtual ~StatusFeed() = default;

  /// Sends the result of `line` to all subscribers, unless the same text was sent last. Until the next
  /// `publish`, each new subscriber gets the result of `line` at once. Calls `line` only when there is a
  /// subscriber. Ends the subscription of a process that does not read what is sent to it.
  virtual void publish(StatusLine line) = 0;

  /// Subscribes to the running client, and after the end of that client to the next client that runs. Calls
  /// `onLine` soon with the newest line, then with each later line. Calls `onAbsence` when no client runs, or
  /// when the running client sends no first line in time. Calls neither function before `subscribe` returns.
  /// The result is never null.
  virtual StatusSubscription subscribe(std::function<void(const std::string&)> onLine,
                                       std::function<void()> onAbsence) = 0;

  /// Sets the function that performs the action of a menu row when another program requests it. The reason of
  /// a failure is one line. Requests that come before this call are refused.
  virtual void onPerform(std::function<Result<>(const std::string& action)> perform) = 0;
};

}  // namespace kestrune
