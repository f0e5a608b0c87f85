#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrune {

/// A subscription to the client's status. The destructor ends the subscription. Main thread.
class StatusSubscription {
 public:
  virtual ~StatusSubscription() = default;
};

/// Returns the newest status as one line, without a line end.
using StatusLine = std::function<std::string()>;

/// Publishes the client's status to the user's other processes, and lets them subscribe to it. Main thread.
class StatusFeed {
 public:
  virtual ~StatusFeed() = default;

  /// Sends the result of `line` to all subscribers now, and to each process that subscribes before the next
  /// `publish`. Does not send a line that equals the previous line. Calls `line` only if there is a
  /// subscriber. Ends the subscription of a process that does not read.
  virtual void publish(StatusLine line) = 0;

  /// Subscribes to the running client and to each later client. `onLine` gets the newest line soon, then each
  /// later line. `onAbsence` is called soon if no client runs or answers, and whenever the subscribed client
  /// has ended. Neither function is called before `subscribe` returns. The result is never null.
  virtual std::unique_ptr<StatusSubscription> subscribe(std::function<void(const std::string&)> onLine,
                                                        std::function<void()> onAbsence) = 0;
};

/// Receives requests from other programs of this user. Main thread.
class Requests {
 public:
  virtual ~Requests() = default;

  /// Sets the function that performs the action of a menu row for another program. The function returns the
  /// reason of a failure in one line; absent on success. Requests before this call are refused.
  virtual void onPerform(std::function<std::optional<std::string>(const std::string& action)> perform) = 0;
};

}  // namespace kestrune
