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
#include "adapters/system/System.h"
#include "adapters/windows/protocol/DialogProtocol.h"
#include "ports/Desktop.h"

namespace kestrune {

/// The program KestruneMenuDialogs, which shows the client's windows. Its package is optional.
struct DialogProgram {
  EventLoop& loop;
  std::string path;
  bool hasDisplay;
  Notifications& notifications;
  Seconds patience{5.0};  ///< how long a window may take to appear
  std::string token{};    ///< XDG_ACTIVATION_TOKEN for the next window that is opened or raised, or empty
  bool isReportedMissing = false;

  /// Reports on standard error why a window could not be shown. If there is a display but the program is not
  /// installed, reports this instead of `reason`, and shows a notification. Says each thing only once.
  void report(const std::string& reason);
};

/// One process of KestruneMenuDialogs, with pipes to its standard input and output. The destructor closes the
/// pipes; the process then closes its windows and exits. Main thread.
class DialogProcess {
 public:
  using OnEvent = std::function<void(const dialogs::Event&)>;
  using OnEnd = std::function<void()>;

  /// `givenProgram` must outlive this object. `givenOnEvent` may destroy this object. `givenOnEnd` must
  /// destroy this object. The process then has ended, or could not be started, and a problem is already
  /// reported on standard error.
  DialogProcess(DialogProgram& givenProgram, OnEvent givenOnEvent, OnEnd givenOnEnd)
      : program(givenProgram), onEvent(std::move(givenOnEvent)), onEnd(std::move(givenOnEnd)) {}

  /// Sends a request for the window of the alert `id`, or for the menu if `id` is 0. The first call starts
  /// the program; if this fails, calls `onEnd` before it returns. If the window does not appear within
  /// `program.patience`, kills the process and calls `onEnd`.
  void show(const dialogs::Request& request, int id);

  /// Call this only after `show`.
  void send(const dialogs::Request& request) { input->write(dialogs::encode(request) + "\n"); }

  /// Brings the windows to the front. Call this only after `show`.
  void raise() { send(dialogs::Raise{std::exchange(program.token, {})}); }

  void kill() { program.loop.signalChild(pid, SIGKILL); }

 private:
  std::optional<std::string> start();
  void readSome();
  void finish(const std::optional<std::string>& problem) {
    // Kill the program: one that broke the protocol may keep running after its standard input is closed.
    kill();
    if (problem) program.report(*problem);
    const auto handler = onEnd;  // it destroys this object
    handler();
  }

  DialogProgram& program;
  const OnEvent onEvent;
  const OnEnd onEnd;
  pid_t pid = 0;
  FileDescriptor output;
  EventSource readable;
  std::optional<DescriptorWriter> input;  ///< empty before `show`
  std::string begun;                      ///< the start of a line whose end has not arrived yet
  int expected = 0;      ///< ID of the window that must appear before `deadline`; 0: the menu
  EventSource deadline;  ///< set while a requested window is not on the screen yet
  const std::shared_ptr<bool> alive = std::make_shared<bool>();
};

}  // namespace kestrune
