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

namespace kestrune {

/// How long a window may take to appear.
inline constexpr Seconds windowPatience{5.0};

/// One process of KestruneMenuDialogs. The destructor closes its windows. Main thread.
class DialogProcess {
 public:
  using OnEvent = std::function<void(const dialogs::Event&)>;
  using OnEnd = std::function<void(const std::optional<std::string>& problem)>;

  /// `onEvent` and `onEnd` may destroy this. `onEnd` runs once, when no more events will come. `problem` is
  /// absent when the program ended by itself and gave no reason.
  DialogProcess(EventLoop& loop, OnEvent onEvent, OnEnd onEnd);
  ~DialogProcess();
  DialogProcess(const DialogProcess&) = delete;
  DialogProcess& operator=(const DialogProcess&) = delete;

  /// Starts the program at `path`. Returns why it could not be started; absent on success.
  std::optional<std::string> start(const std::string& path);

  void send(const dialogs::Request& request);

  /// Kills the program (SIGKILL).
  void kill();

 private:
  void readSome();
  void finish(const std::optional<std::string>& problem);

  EventLoop& loop;
  OnEvent onEvent;
  OnEnd onEnd;
  pid_t pid = 0;
  FileDescriptor output;
  EventSource readable;
  std::unique_ptr<DescriptorWriter> input;
  std::string begun;                                           ///< a line that is not complete yet
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);  ///< false once this is destroyed
};

}  // namespace kestrune
