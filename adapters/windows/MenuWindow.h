#pragma once

#include <memory>
#include <string>

#include "adapters/loop/EventLoop.h"
#include "adapters/windows/DialogProcess.h"

namespace kestrune {

/// The menu as a window of the dialogs program, for desktops without a tray and for hosts that do not open
/// menus. Follows the menu while it is open. Main thread.
class MenuWindow {
 public:
  /// `program` is the path of the dialogs program; `hasDisplay`: there is something to show windows on;
  /// `patience`: how long the window may take to come.
  MenuWindow(EventLoop& loop, std::string program, bool hasDisplay, Seconds patience = windowPatience);
  ~MenuWindow();

  void setMenu(const Menu& menu);

  /// Shows the window, or brings the one that is open to the front; by `activationToken` (xdg-activation) if
  /// whoever asks was given one, else it is empty. A window that cannot be shown is told on standard error.
  void show(const std::string& activationToken = {});

  void close();

 private:
  void handle(const dialogs::Event& event);
  void ended(const std::optional<std::string>& problem);
  void forgetProcess();
  void report(const std::string& problem) const;

  EventLoop& loop;
  const std::string program;
  const bool hasDisplay;
  const Seconds patience;
  Menu menu;
  std::unique_ptr<DialogProcess> process;
  EventSource deadline;  ///< there until the window is on the screen
};

}  // namespace kestrune
