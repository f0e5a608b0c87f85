#pragma once

#include <memory>
#include <string>
#include <vector>

#include "adapters/windows/protocol/DialogProtocol.h"
#include "dialogs/MenuWindow.h"
#include "dialogs/Streams.h"

namespace kestrune::dialogs {

class AlertWindow;

/// Shows the client's requests as windows, and reports their answers as events. Ends the main loop: with
/// status 0 when the last window is answered or the client has gone, with 1 when a request cannot be served.
class Session {
 public:
  /// Reads requests from `input` and writes events to `output`. The caller owns both descriptors.
  Session(int input, int output);
  ~Session();

 private:
  void take(const std::string& line);
  void perform(const ShowAlert& request);
  void perform(const Raise& request);
  void perform(const ShowMenu& request);
  void tell(const Event& event);
  void refuse(const std::string& reason);
  void end(int status);
  void forget(int id);

  const int output;
  std::vector<AlertWindow*> alerts;  ///< each is on top of the one before, which owns it
  std::unique_ptr<MenuWindow> menu;
  LineReader reader;
  bool ended = false;
};

}  // namespace kestrune::dialogs
