#pragma once

#include <QSocketNotifier>
#include <memory>
#include <string>
#include <vector>

#include "adapters/windows/protocol/DialogProtocol.h"
#include "dialogs/MenuWindow.h"

namespace kestrune::dialogs {

class AlertWindow;

/// Shows the client's requests, the lines on standard input, as windows. Writes their answers as events to
/// standard output. Ends the main loop: with status 0 when the last window is answered or the client has
/// gone, with 1 when a request cannot be served or an event cannot be written.
class Session {
 public:
  Session();
  ~Session();

 private:
  void read();
  void take(const std::string& line);
  void perform(const ShowAlert& request);
  void perform(const Raise& request);
  void perform(const ShowMenu& request);
  void tell(const Event& event);
  void refuse(const std::string& reason);
  void end(int status);
  void forget(int id);

  QSocketNotifier input;             ///< disabled once the main loop is to end
  std::string begun;                 ///< a line that is not complete yet
  std::vector<AlertWindow*> alerts;  ///< each is on top of the one before, which owns it
  std::unique_ptr<MenuWindow> menu;
};

}  // namespace kestrune::dialogs
