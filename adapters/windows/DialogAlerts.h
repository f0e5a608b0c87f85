#pragma once

#include <memory>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/windows/ActivationToken.h"
#include "adapters/windows/DialogProcess.h"

namespace kestrune {

/// Shows alerts as windows of the program KestruneMenuDialogs. One process shows an alert and the alerts on
/// top of it. An alert that cannot be shown becomes a notification and counts as cancelled. Main thread.
class DialogAlerts final : public AlertQueue {
 public:
  /// `token` holds the activation token of the last click in the tray. All arguments outlive this.
  DialogAlerts(EventLoop& loop, DialogProgram& program, ActivationToken& token);
  ~DialogAlerts() override;

  /// Closes the windows and drops the waiting alerts. Calls no completions. Called before the client exits.
  void close();

 private:
  void show(const Open& shown) override;
  void raise() override;
  void handle(const dialogs::Event& event);
  void giveUp();

  EventLoop& loop;
  DialogProgram& program;
  ActivationToken& token;
  std::unique_ptr<DialogProcess> process;
};

}  // namespace kestrune
