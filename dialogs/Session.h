#pragma once

#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <cstdio>
#include <string>
#include <vector>

#include "adapters/windows/protocol/DialogProtocol.h"
#include "dialogs/MenuWindow.h"

namespace kestrune::dialogs {

/// Reads the client's requests, one a line, from standard input, and shows them as windows. Writes what the
/// user does as events to standard output. Ends the main loop: with status 0 when the last window is closed
/// or standard input ends, with 1 when a request cannot be served or an event cannot be written.
class Session {
 public:
  Session() : input(STDIN_FILENO, QSocketNotifier::Read) {
    QObject::connect(&input, &QSocketNotifier::activated, &input, [this] { read(); });
  }
  ~Session() {
    if (!windows.empty()) delete windows.front();
  }

 private:
  void read();
  void perform(const ShowAlert& request);
  void perform(const Raise& request);
  void perform(const ShowMenu& request);
  /// Brings all windows to the front. On Wayland, hides them and shows them again, unless the top window is
  /// active. Returns whether it has hidden them.
  bool raise();
  void tell(const Event& event) {
    if (std::puts(encode(event).c_str()) == EOF || std::fflush(stdout) != 0) end(1);
  }
  /// The first call decides the exit status; later calls do nothing.
  void end(int status) {
    if (!input.isEnabled()) return;
    input.setEnabled(false);
    QCoreApplication::exit(status);
  }

  QSocketNotifier input;               ///< disabled once the main loop has been told to end
  std::string begun;                   ///< the start of a line whose end has not arrived yet
  std::vector<DialogWindow*> windows;  ///< the menu; or the alerts from bottom to top, each owning the next
  MenuWindow* menu = nullptr;
};

}  // namespace kestrune::dialogs
