#pragma once

#include <memory>
#include <string_view>
#include <utility>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/windows/DialogProcess.h"

namespace kestrune {

/// Shows alerts and the menu as windows of the program KestruneMenuDialogs. One process shows all open
/// alerts, each on top of the one before. Another process shows the menu. An alert that cannot be shown
/// becomes a notification and counts as cancelled. Main thread.
class DialogWindows final : public AlertQueue {
 public:
  /// `givenProgram` must outlive this object.
  explicit DialogWindows(DialogProgram& givenProgram)
      : AlertQueue(givenProgram.loop.mainQueue()), program(givenProgram) {}

  /// Stores the activation token (XDG_ACTIVATION_TOKEN) of the user's last click in the tray, or of the last
  /// start of the program while this client runs. The token works once: it lets the next window that is
  /// opened or raised take the focus. A token of over 4096 bytes counts as empty: any program may send one.
  void giveToken(std::string_view given) { program.token = given.size() <= 4096 ? given : ""; }

  /// Sets the menu. An open menu window follows the change.
  void setMenu(const Menu& changed) {
    if (menu == changed) return;
    menu = changed;
    if (menuProcess) menuProcess->send(dialogs::ShowMenu{menu});
  }
  /// Shows the menu window, or brings it to the front. If it cannot be shown, reports why on standard error.
  void showMenu();

  /// Closes the windows. Drops all alerts and does not call their completions. Called before the client
  /// exits.
  void close() {
    forget();
    for (auto* const process : {&alertProcess, &menuProcess}) {
      if (*process) std::exchange(*process, nullptr)->kill();
    }
  }

 private:
  void show(const Open& shown) override;
  void raise() override {
    if (alertProcess) alertProcess->raise();
  }
  void alertEvent(const dialogs::Event& event);
  void giveUp();

  DialogProgram& program;
  Menu menu;
  std::unique_ptr<DialogProcess> alertProcess;
  std::unique_ptr<DialogProcess> menuProcess;
};

}  // namespace kestrune
