#pragma once

#include <memory>

#include "adapters/bus/BusInquiry.h"
#include "ports/Notifications.h"
#include "ports/Timer.h"

namespace kestrune {

/// Tells the user once, by a notification, that the desktop shows no tray icons: a client without an icon
/// would go unnoticed. Withdraws the notification when a tray appears. Main thread.
class TrayAdvice {
 public:
  static constexpr Seconds patience{30.0};   ///< until the first look, and after a look without an answer
  static constexpr Seconds secondLook{5.0};  ///< after the first, because a panel may be restarting
  static constexpr int looksInVain = 10;     ///< after as many looks in a row without an answer, gives up

  /// The arguments outlive this.
  TrayAdvice(SessionBus& bus, Timers& givenTimers, Notifications& givenNotifications);

  /// A tray has accepted the icon: looks again, if the user was told that there is none.
  void trayChanged();

 private:
  void lookAfter(Seconds delay);
  void look();
  void trayMissing();

  Timers& timers;
  Notifications& notifications;
  BusInquiry inquiry;
  std::unique_ptr<Timer> timer;
  int unanswered = 0;  ///< looks in a row
  bool missedBefore = false;
  bool advised = false;
};

}  // namespace kestrune
