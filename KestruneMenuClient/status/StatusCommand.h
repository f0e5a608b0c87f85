#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "ports/Platform.h"

namespace kestrune {

enum class StatusFormat { text, json, waybar };

/// Implements the option --status: prints the status of the running client. If no client answers, prints the
/// backend's status, or `disabledStatus` if auto-connect is off. Starts and stops no service. Main thread;
/// must be owned by a `std::shared_ptr`.
class StatusCommand final : public ApplicationDelegate, public std::enable_shared_from_this<StatusCommand> {
 public:
  struct Options {
    StatusFormat format = StatusFormat::text;
    bool follow = false;    ///< print each change instead of exiting
    bool exitZero = false;  ///< exit with 0 even if the status says that the backend is not healthy
  };

  /// `givenPrint` prints a text or queues it for printing, and returns false if the text cannot be printed.
  /// `givenPlatform` must outlive this object.
  StatusCommand(Platform& givenPlatform, Options givenOptions,
                std::function<bool(const std::string&)> givenPrint)
      : platform(givenPlatform), options(givenOptions), print(std::move(givenPrint)) {}

  /// Returns the exit status for the process. Valid after the main loop has ended.
  int exitCode() const { return code; }

  void applicationDidFinishLaunching() override { subscribe(); }
  void applicationWillTerminate() override {
    platform.pathMonitor.cancel();
    workerQueue->close();
    platform.processes.reserveForThisThread();
  }

 private:
  void subscribe() {
    next.reset();
    subscription = platform.statusFeed.subscribe([this](const std::string& line) { heard(line); },
                                                 [this] { clientIsAbsent(); });
  }
  void heard(const std::string& line);
  void clientIsAbsent();
  /// Gets the status from the backend instead of the client. Asks the backend after `platform.pathMonitor`
  /// has reported the network path.
  void checkBackend();
  void askBackend();
  void checkDidFinish();
  /// `json`: a status as `statusJson` writes it. Prints the status in the format `options.format`. Returns
  /// false if `json` cannot be parsed.
  bool show(const std::string& json);

  Platform& platform;
  const Options options;
  const std::function<bool(const std::string&)> print;
  const std::unique_ptr<DispatchQueue> workerQueue = platform.dispatch.makeSerialQueue(
      "kestrune.menu.worker", QualityOfService::userInitiated, QueueTarget::ownThread);
  StatusSubscription subscription;
  std::unique_ptr<Timer> next;  ///< ticks once, because its action resets it
  bool hasHeard = false;        ///< true from a client's first status until this client ends
  bool isChecking = false;
  StatusSnapshot found;  ///< the result of the last `checkBackend`
  std::string shown;     ///< the text that was printed last
  int code = 1;
};

}  // namespace kestrune
