#pragma once

#include <memory>
#include <string>

#include "adapters/loop/EventLoop.h"
#include "adapters/windows/DialogProcess.h"

namespace kestrune {

/// The menu as a window of KestruneMenuDialogs, for desktops without a tray and for tray hosts that do not
/// open menus. Shows changes of the menu while it is open. Main thread.
class MenuWindowProcess {
 public:
  MenuWindowProcess(EventLoop& loop, DialogProgram& program);
  ~MenuWindowProcess();

  void setMenu(const Menu& menu);

  /// Shows the window, or brings the open one to the front. `activationToken` (XDG_ACTIVATION_TOKEN) lets it
  /// take the focus; empty for none. A window that cannot be shown is reported on standard error.
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
