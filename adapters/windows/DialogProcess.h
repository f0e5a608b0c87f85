#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "adapters/loop/DescriptorWriter.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"
#include "adapters/windows/protocol/DialogProtocol.h"
#include "ports/Desktop.h"

namespace kestrune {

/// The program KestruneMenuDialogs, which shows the windows. Its package is optional and may be missing.
struct DialogProgram {
  std::string path;
  bool hasDisplay;  ///< whether the session has a display
  Notifications& notifications;
  Seconds patience{5.0};  ///< how long a window may take to appear
  bool isReportedMissing = false;

  /// Reports on standard error why a window could not be shown, each reason once. If there is a display but
  /// the program is missing, reports only that it is missing, once, and also shows a notification.
  void report(const std::string& reason);
};

/// One process of KestruneMenuDialogs. The destructor closes the pipes; the process then closes its windows
/// and exits. Main thread.
class DialogProcess {
 public:
  using OnEvent = std::function<void(const dialogs::Event&)>;
  /// `failed`: whether a problem was reported on standard error.
  using OnEnd = std::function<void(bool failed)>;

  /// `program` must outlive this object. `onEvent` and `onEnd` may destroy this object. `onEnd` is called
  /// once, after the last event.
  DialogProcess(EventLoop& loop, DialogProgram& program, OnEvent onEvent, OnEnd onEnd);
  ~DialogProcess();
  DialogProcess(const DialogProcess&) = delete;
  DialogProcess& operator=(const DialogProcess&) = delete;

  /// Starts the program. `activationToken` (XDG_ACTIVATION_TOKEN) lets its first window take the focus; empty
  /// for no token. If the start fails, reports why and returns false; `onEnd` does not run then.
  bool start(const std::string& activationToken);

  /// Sends a request for the window of the alert `id`, or for the menu if `id` is 0. If the window does not
  /// appear within `program.patience`, the process is killed and `onEnd` runs with `failed`.
  void show(const dialogs::Request& request, int id);

  void send(const dialogs::Request& request);

  /// Kills the program (SIGKILL).
  void kill();

 private:
  std::optional<std::string> spawnProgram();
  void readSome();
  void finish(const std::optional<std::string>& problem);

  EventLoop& loop;
  DialogProgram& program;
  OnEvent onEvent;
  OnEnd onEnd;
  pid_t pid = 0;
  FileDescriptor output;
  EventSource readable;
  std::unique_ptr<DescriptorWriter> input;
  std::string begun;     ///< the start of a line whose end has not arrived yet
  int expected = 0;      ///< ID of the window that must appear before `deadline`
  EventSource deadline;  ///< set while a requested window is not on the screen yet
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);  ///< false after this object is destroyed
};

}  // namespace kestrune
