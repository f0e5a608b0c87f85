#pragma once

#include <memory>
#include <string>

#include "platform/AlertQueue.h"
#include "platform/Notifications.h"
#include "platform/linux/EventLoop.h"
#include "platform/tray/ActivationToken.h"
#include "platform/tray/DialogProcess.h"

namespace kestrune {

/// Alerts as windows of the dialogs program: one run of it for each alert and those on top of it. An alert
/// that cannot be shown becomes a notification, and counts as cancelled. Main thread.
class DialogAlerts final : public AlertQueue {
 public:
  /// `token` has what the click on the tray was given for its window; `program` is the path of the dialogs
  /// program; `hasDisplay`: there is something to show windows on; `patience`: how long a window may take to
  /// come.
  DialogAlerts(EventLoop& loop, Notifications& notifications, ActivationToken& token, std::string program,
               bool hasDisplay, Seconds patience = windowPatience);
  ~DialogAlerts() override;

  /// Closes what is open and forgets what waits; no completion is called. For the end of the process.
  void close();

 private:
  void show(const Open& shown) override;
  void raise() override;
  void handle(const dialogs::Event& event);
  void giveUp(const std::string& reason);
  void fallBack(const Open& lost, const std::string& reason);
  void forgetProcess();

  EventLoop& loop;
  Notifications& notifications;
  ActivationToken& token;
  const std::string program;
  const bool hasDisplay;
  const Seconds patience;

  std::unique_ptr<DialogProcess> process;
  EventSource deadline;  ///< there until the window of the last alert is on the screen
};

}  // namespace kestrune
