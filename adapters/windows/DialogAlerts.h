#pragma once

#include <memory>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/windows/ActivationToken.h"
#include "adapters/windows/DialogProcess.h"

namespace kestrune {

/// Alerts as windows of KestruneMenuDialogs, one process for an alert and those on top of it. An alert that
/// cannot be shown becomes a notification and counts as cancelled. Main thread.
class DialogAlerts final : public AlertQueue {
 public:
  /// `token` is what a click in the tray brought for its window.
  DialogAlerts(EventLoop& loop, DialogProgram& program, ActivationToken& token);
  ~DialogAlerts() override;

  /// Closes the windows and drops the waiting alerts without calling completions. For the end of the process.
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
