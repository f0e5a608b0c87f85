#pragma once

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "adapters/loop/DescriptorWriter.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"
#include "adapters/windows/protocol/DialogProtocol.h"
#include "ports/Desktop.h"

namespace kestrune {

/// The program KestruneMenuDialogs, which shows the client's windows. Its package is optional.
struct DialogProgram {
  std::string path;
  bool hasDisplay;
  Notifications& notifications;
  Seconds patience{5.0};  ///< how long a window may take to appear
  bool isReportedMissing = false;

  /// Reports on standard error why a window could not be shown. If there is a display but the program is not
  /// installed, reports this instead of `reason`, and shows a notification. Prints each message only once,
  /// and shows the notification only once.
  void report(const std::string& reason);
};

/// One process of KestruneMenuDialogs, with pipes to its standard input and output. The destructor closes the
/// pipes; the process then closes its windows and exits. Main thread.
class DialogProcess {
 public:
  using OnEvent = std::function<void(const dialogs::Event&)>;
  /// `failed`: whether a problem ended the process. The problem is already reported on standard error.
  using OnEnd = std::function<void(bool failed)>;

  /// `givenProgram` must outlive this object. The two handlers may destroy this object.
  /// `givenOnEnd` is called once, after the last event.
  DialogProcess(EventLoop& givenLoop, DialogProgram& givenProgram, OnEvent givenOnEvent, OnEnd givenOnEnd)
      : loop(givenLoop),
        program(givenProgram),
        onEvent(std::move(givenOnEvent)),
        onEnd(std::move(givenOnEnd)) {}

  /// Starts the program. `activationToken` (XDG_ACTIVATION_TOKEN) lets the program's first window take the
  /// focus; it is empty if there is none. If the start fails, reports why, does not call `onEnd`, and returns
  /// false.
  bool start(const std::string& activationToken);

  /// Sends a request for the window of the alert `id`, or for the menu if `id` is 0. If the window does not
  /// appear within `program.patience`, this object kills the process and calls `onEnd(true)`.
  void show(const dialogs::Request& request, int id);

  void send(const dialogs::Request& request);

  /// Kills the program (SIGKILL).
  void kill() { loop.signalChild(pid, SIGKILL); }

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
  std::optional<DescriptorWriter> input;
  std::string begun;     ///< the start of a line whose end has not arrived yet
  int expected = 0;      ///< ID of the window that must appear before `deadline`
  EventSource deadline;  ///< set while a requested window is not on the screen yet
  const std::shared_ptr<bool> alive = std::make_shared<bool>();
};

}  // namespace kestrune
