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
#include "ports/Notifications.h"

namespace kestrune {

/// The program KestruneMenuDialogs, which shows the windows. It is a package of its own, which may be
/// missing.
struct DialogProgram {
  std::string path;
  bool hasDisplay;  ///< the session has a display
  Notifications& notifications;
  Seconds patience{5.0};  ///< how long a window may take to appear
  bool isReportedMissing = false;

  /// Reports on standard error why a window could not be shown, each reason once. If the program is missing,
  /// reports that instead, and once in a notification.
  void report(const std::string& reason);
};

/// One process of KestruneMenuDialogs. The destructor closes its windows. Main thread.
class DialogProcess {
 public:
  using OnEvent = std::function<void(const dialogs::Event&)>;
  /// `failed`: a problem was reported.
  using OnEnd = std::function<void(bool failed)>;

  /// `program` outlives this. `onEvent` and `onEnd` may destroy this. `onEnd` runs once, when no more events
  /// will come.
  DialogProcess(EventLoop& loop, DialogProgram& program, OnEvent onEvent, OnEnd onEnd);
  ~DialogProcess();
  DialogProcess(const DialogProcess&) = delete;
  DialogProcess& operator=(const DialogProcess&) = delete;

  /// Starts the program. `activationToken` (XDG_ACTIVATION_TOKEN) is for its first window; empty for none.
  /// False, and reported, when it cannot be started; `onEnd` does not run then.
  bool start(const std::string& activationToken);

  /// Sends a request for a window. The process fails if the window `id` (0: the menu) does not appear in
  /// time.
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
  std::string begun;                                           ///< a line that is not complete yet
  int expected = 0;                                            ///< the window that `deadline` is for
  EventSource deadline;                                        ///< set until the last window is on the screen
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);  ///< false once this is destroyed
};

}  // namespace kestrune
