#pragma once

#include <memory>

#include "adapters/bus/SessionBus.h"
#include "ports/Desktop.h"
#include "ports/Loop.h"

namespace kestrune {

/// Checks whether the desktop has a tray that shows icons. If not, shows a notification once, because a
/// client without an icon is easily overlooked. Withdraws the notification when a tray appears. Main thread.
class TrayAdvice final : public BusClient {
 public:
  /// The delay before the first check, and between an unanswered check and the next one.
  static constexpr Seconds patience{30.0};
  /// The delay before a second check if the first one found no tray: the panel may have been restarting.
  static constexpr Seconds secondLook{5.0};
  static constexpr int looksInVain = 10;  ///< after this many unanswered checks in a row, no more are made

  /// All arguments must outlive this object.
  TrayAdvice(SessionBus& givenBus, Dispatch& givenDispatch, Notifications& givenNotifications)
      : BusClient(givenBus), dispatch(givenDispatch), notifications(givenNotifications) {
    lookAfter(patience);
  }

  /// Call this when a tray has accepted the icon. If the notification was shown, checks for a tray again.
  void trayChanged() {
    if (misses > 1) look();
  }

 private:
  void lookAfter(Seconds delay) {
    timer = dispatch.scheduleRepeating(delay, [this] { look(); });
  }
  void look();
  void answered(sd_bus_message* reply);

  Dispatch& dispatch;
  Notifications& notifications;
  BusSlot question;
  std::unique_ptr<Timer> timer;  ///< ticks once, because `look` replaces or resets it
  int unanswered = 0;            ///< number of checks in a row without an answer
  int misses = 0;  ///< number of checks that found no tray; the second one shows the notification
};

}  // namespace kestrune
