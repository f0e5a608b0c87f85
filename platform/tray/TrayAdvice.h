#pragma once

#include <memory>

#include "platform/Notifications.h"
#include "platform/Timer.h"
#include "platform/linux/BusInquiry.h"

namespace kestrune {

/// Tells the user once, by a notification, when the desktop shows no tray icons half a minute after this was
/// made, nor a moment later: a client without an icon would go unnoticed. Main thread.
class TrayAdvice {
 public:
  static constexpr Seconds patience{30.0};
  static constexpr Seconds secondLook{5.0};  ///< after the first: panels restart, and come late after a sleep

  /// What is given outlives this.
  TrayAdvice(SessionBus& bus, Timers& givenTimers, Notifications& notifications);

 private:
  void look();
  void missed();

  Timers& timers;
  Notifications& notifications;
  BusInquiry inquiry;
  std::unique_ptr<Timer> timer;
  bool missedBefore = false;
};

}  // namespace kestrune
