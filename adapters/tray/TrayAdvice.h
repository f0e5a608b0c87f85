#pragma once

#include <memory>

#include "adapters/bus/BusInquiry.h"
#include "ports/Notifications.h"
#include "ports/Timer.h"

namespace kestrune {

/// Tells the user once, by a notification, when the desktop shows no tray icons half a minute after this was
/// made, nor a moment later: a client without an icon would go unnoticed. A look to which nobody answers is
/// repeated, a few times. The notification is withdrawn when there is a tray. Main thread.
class TrayAdvice {
 public:
  static constexpr Seconds patience{30.0};
  static constexpr Seconds secondLook{5.0};  ///< after the first: panels restart, and come late after a sleep
  static constexpr int looksInVain = 10;     ///< as many in a row without an answer, and there are no more

  /// What is given outlives this.
  TrayAdvice(SessionBus& bus, Timers& givenTimers, Notifications& notifications);

  /// A tray has taken the icon: looks again, if the user was told that there is none.
  void trayChanged();

 private:
  void lookAfter(Seconds delay);
  void look();
  void missed();

  Timers& timers;
  Notifications& notifications;
  BusInquiry inquiry;
  std::unique_ptr<Timer> timer;
  int unanswered = 0;  ///< looks in a row
  bool missedBefore = false;
  bool advised = false;
};

}  // namespace kestrune
