#pragma once

#include <string>

namespace kestrune {

struct Notification {
  std::string identifier;  ///< unique, so that no notification replaces another
  std::string title;
  std::string body;
  bool lasting = false;  ///< stays until the user or `withdraw` removes it

  bool operator==(const Notification&) const = default;
};

enum class NotificationOption : unsigned { badge = 1, sound = 2, alert = 4 };

/// Shows desktop notifications. Main thread.
class Notifications {
 public:
  virtual ~Notifications() = default;

  /// Asks the user once for permissions: `options` is a bitwise OR of `NotificationOption`s. Does not report
  /// the answer.
  virtual void requestAuthorization(unsigned options) = 0;

  /// Shows `notification` at once. If it cannot be shown, drops it without reporting an error.
  virtual void add(const Notification& notification) = 0;

  /// Removes the lasting notification with this identifier, if it is still shown.
  virtual void withdraw(const std::string& identifier) = 0;
};

}  // namespace kestrune
