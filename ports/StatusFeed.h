#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrune {

/// A subscription to the client's status. Destroying it ends it. Main thread.
class StatusSubscription {
 public:
  virtual ~StatusSubscription() = default;
};

/// The newest status as one line, without a line end.
using StatusLine = std::function<std::string()>;

/// Publishes the client's status to other processes of the same user, and subscribes to it. Main thread.
class StatusFeed {
 public:
  virtual ~StatusFeed() = default;

  /// Sends the line to all subscribers now, and to those that come before the next call. Does not repeat a
  /// line that equals the previous one. Calls `line` only if there is a subscriber. Drops a subscriber that
  /// does not read.
  virtual void publish(StatusLine line) = 0;

  /// Subscribes to the running client and to each later one: `onLine` gets the newest line soon, then each
  /// later one. `onAbsence` is called soon if no client runs or it does not answer, and whenever the
  /// subscribed client has ended. Neither is called before this returns. Never null.
  virtual std::unique_ptr<StatusSubscription> subscribe(std::function<void(const std::string&)> onLine,
                                                        std::function<void()> onAbsence) = 0;
};

/// Requests from other programs of this user. Main thread.
class Requests {
 public:
  virtual ~Requests() = default;

  /// Sets the function that is called for each request to choose a menu row, with the row's action. It
  /// returns one line with the reason of a failure; absent on success. Requests before this call are refused.
  virtual void onPerform(std::function<std::optional<std::string>(const std::string& action)> perform) = 0;
};

}  // namespace kestrune
