#pragma once

#include <string>

#include "ports/Result.h"

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

  /// Asks the user for the permissions in `options`, a bitwise OR of `NotificationOption`s. Does not report
  /// the answer. Call this only once.
  virtual void requestAuthorization(unsigned options) = 0;

  /// Shows `notification` at once. If it cannot be shown, drops it without reporting an error.
  virtual void add(const Notification& notification) = 0;

  /// Removes the lasting notification with this identifier, if it is still shown.
  virtual void withdraw(const std::string& identifier) = 0;
};

/// Opens files and programs. Does not wait for the programs that it starts. Main thread.
class Workspace {
 public:
  virtual ~Workspace() = default;

  /// Opens a file or folder in the desktop's default program. Does not report the result.
  virtual void open(const std::string& path) = 0;

  /// Restarts this application from the bundle at `bundlePath`. Normally starts a second process, which waits
  /// until this process has ended. If a terminal or a service manager waits for this process, starts nothing
  /// and returns success: `Host::leave` later replaces this process by exec. A failure of that exec is not
  /// reported to the caller. So check that the program can run before you call this.
  virtual Result<> openNewInstance(const std::string& bundlePath) = 0;
};

}  // namespace kestrune
