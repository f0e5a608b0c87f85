#pragma once

#include <memory>
#include <string>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/windows/ActivationToken.h"
#include "adapters/windows/DialogProcess.h"
#include "ports/Notifications.h"

namespace kestrune {

/// Alerts as windows of KestruneMenuDialogs, one process for an alert and those on top of it. An alert that
/// cannot be shown becomes a notification and counts as cancelled. Main thread.
class DialogAlerts final : public AlertQueue {
 public:
  /// `token` is what a click in the tray brought for its window. `program` is the path of
  /// KestruneMenuDialogs; `hasDisplay`: the session has a display; `patience`: how long a window may take to
  /// appear.
  DialogAlerts(EventLoop& loop, Notifications& notifications, ActivationToken& token, std::string program,
               bool hasDisplay, Seconds patience = windowPatience);
  ~DialogAlerts() override;

  /// Closes the windows and drops the waiting alerts without calling completions. For the end of the process.
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
  EventSource deadline;  ///< set until the window of the last alert is on the screen
};

}  // namespace kestrune
