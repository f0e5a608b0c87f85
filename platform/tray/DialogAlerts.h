#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Alert.h"
#include "platform/Notifications.h"
#include "platform/linux/EventLoop.h"
#include "platform/tray/DialogProcess.h"

namespace kestrune {

/// Alerts as windows of the dialogs program. One that cannot be shown becomes a notification, and counts as
/// cancelled. Main thread.
class DialogAlerts final : public Alerts {
 public:
  /// `program` is the path of the dialogs program; `hasDisplay`: there is something to show windows on;
  /// `patience`: how long a window may take to come.
  DialogAlerts(EventLoop& loop, Notifications& notifications, std::string program, bool hasDisplay,
               Seconds patience = windowPatience);
  ~DialogAlerts() override;

  void present(AlertRequest request) override;

  /// Closes what is open and forgets what waits; no completion is called. For the end of the process.
  void close();

 private:
  struct Open {
    int id;
    AlertRequest request;
    Alert alert;
    EventSource deadline;  ///< there until the window is on the screen
  };

  bool isRaised(const std::string& identifier);
  void showNext();
  void show(AlertRequest request);
  void handle(const dialogs::Event& event);
  void giveUp(const std::string& reason);
  void fallBack(const Alert& alert, const std::string& reason);

  EventLoop& loop;
  Notifications& notifications;
  const std::string program;
  const bool hasDisplay;
  const Seconds patience;

  std::deque<AlertRequest> waiting;
  std::deque<AlertRequest> stacking;  ///< asked for inside an open alert; the next to be shown
  std::vector<Open> open;             ///< each on top of the one before
  std::unique_ptr<DialogProcess> process;
  bool performing = false;  ///< a button inside an open alert is doing what it does
  int lastId = 0;
};

}  // namespace kestrune
