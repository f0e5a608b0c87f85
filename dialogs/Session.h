#pragma once

#include <memory>
#include <string>
#include <vector>

#include "adapters/windows/protocol/DialogProtocol.h"
#include "dialogs/MenuWindow.h"
#include "dialogs/Streams.h"

namespace kestrune::dialogs {

class AlertWindow;

/// What the client asks for, as windows, and what becomes of them, as events. Ends the application's main
/// loop: with 0 when the last window is answered or the client is gone, with 1 when it cannot do what it is
/// asked for.
class Session {
 public:
  /// Reads requests from `input` and writes events to `output`; both stay the caller's.
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
  std::vector<AlertWindow*> alerts;  ///< each stands on the one before it, which owns it
  std::unique_ptr<MenuWindow> menu;
  LineReader reader;
  bool ended = false;
};

}  // namespace kestrune::dialogs
