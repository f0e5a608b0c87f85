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

  /// Asks the user once for permission to show alerts and play sounds. Does not report the answer.
  virtual void requestAuthorization(unsigned options) = 0;

  /// Shows `notification` at once. Silently drops one that cannot be shown.
  virtual void add(const Notification& notification) = 0;

  /// Removes a lasting notification, if it is still shown.
  virtual void withdraw(const std::string& identifier) = 0;
};

}  // namespace kestrune
