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
  static constexpr Seconds patience{30.0};   ///< until the first look, and after a look without an answer
  static constexpr Seconds secondLook{5.0};  ///< after a first look without a tray: a panel may be restarting
  static constexpr int looksInVain = 10;     ///< gives up after this many looks in a row without an answer

  /// All arguments outlive this object.
  TrayAdvice(SessionBus& bus, Timers& givenTimers, Notifications& givenNotifications);

  /// To be called when a tray has accepted the icon. If the user was told that there is no tray, looks again.
  void trayChanged();

  void busLost() override { question.reset(); }

 private:
  void lookAfter(Seconds delay);
  void look();
  void trayMissing();
  static int answered(sd_bus_message* reply, void* self, sd_bus_error* error);

  Timers& timers;
  Notifications& notifications;
  BusSlot question;
  std::unique_ptr<Timer> timer;
  int unanswered = 0;  ///< number of looks in a row without an answer
  bool missedBefore = false;
  bool advised = false;
};

}  // namespace kestrune
