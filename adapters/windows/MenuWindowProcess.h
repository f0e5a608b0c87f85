#pragma once

#include <memory>
#include <string>

#include "adapters/loop/EventLoop.h"
#include "adapters/windows/DialogProcess.h"

namespace kestrune {

/// Shows the menu as a window of the program KestruneMenuDialogs, for desktops without a tray and for trays
/// that do not open menus. The open window follows changes of the menu. Main thread.
class MenuWindowProcess {
 public:
  MenuWindowProcess(EventLoop& loop, DialogProgram& program);
  ~MenuWindowProcess();

  void setMenu(const Menu& menu);

  /// Shows the window, or brings the open window to the front. `activationToken` (XDG_ACTIVATION_TOKEN) lets
  /// the window take the focus; empty for no token. If it cannot be shown, reports why on standard error.
  void show(const std::string& activationToken = {});

  void close();

 private:
  void handle(const dialogs::Event& event);

  EventLoop& loop;
  DialogProgram& program;
  Menu menu;
  std::unique_ptr<DialogProcess> process;
};

}  // namespace kestrune
