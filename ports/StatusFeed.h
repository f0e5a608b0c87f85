#pragma once

#include <functional>
#include <memory>
#include <string>

namespace kestrune {

/// What the client of this user tells of itself. Not told any more once this goes. Main thread.
class StatusSubscription {
 public:
  virtual ~StatusSubscription() = default;
};

/// The newest status as one line, without a line end.
using StatusLine = std::function<std::string()>;

/// Where the client of this user tells other programs of the same user how things are, and where they hear
/// it. Main thread.
class StatusFeed {
 public:
  virtual ~StatusFeed() = default;

  /// Tells every subscriber the line, and each later one until the next call; a line that is equal to the one
  /// before is not told again. `line` is called only when somebody subscribes. A subscriber that does not
  /// listen is given up.
  virtual void publish(StatusLine line) = 0;

  /// Hears the client that runs, and each that runs later: its newest line soon, then each later one.
  /// `onAbsence` is called, soon, when no client runs or the one that does says nothing, and whenever the one
  /// that was heard has ended. Never null. Neither is called from inside this call.
  virtual std::unique_ptr<StatusSubscription> subscribe(std::function<void(const std::string&)> onLine,
                                                        std::function<void()> onAbsence) = 0;
};

}  // namespace kestrune
