#pragma once

#include <functional>
#include <memory>
#include <string>

#include "KestruneMenuClient/settings/Preferences.h"
#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "ports/Platform.h"

namespace kestrune {

enum class StatusFormat { text, json, waybar };

/// The option --status: prints the status of the running client. If no client answers, asks the backend
/// itself, unless auto-connect is off. Starts and stops nothing else. Main thread; owned by a
/// `std::shared_ptr`.
class StatusCommand final : public ApplicationDelegate, public std::enable_shared_from_this<StatusCommand> {
 public:
  struct Options {
    StatusFormat format = StatusFormat::text;
    bool follow = false;    ///< print each change instead of exiting
    bool exitZero = false;  ///< exit with 0 whatever the lamp is
  };

  /// `print` writes a text at once, and returns false when it could not. `platform` outlives this.
  StatusCommand(Platform& platform, Options options, std::function<bool(const std::string&)> print);

  /// The exit status of the process. Valid after the loop has ended.
  int exitCode() const { return code; }

  void applicationDidFinishLaunching() override;
  void applicationWillTerminate() override;

 private:
  /// Subscribes to the running client.
  void subscribe();
  void heard(const std::string& line);
  void clientIsAbsent();
  /// Determines the status without a client. The first time, waits for the network to be known.
  void check();
  void askBackend();
  void checkDidFinish();
  void after(Seconds delay, void (StatusCommand::*then)());
  void show(const StatusSnapshot& snapshot, bool fromClient);

  Platform& platform;
  const Options options;
  const std::function<bool(const std::string&)> print;
  const Preferences preferences;
  const std::string repoPath;
  const std::unique_ptr<PathMonitor> pathMonitor;
  const std::unique_ptr<DispatchQueue> workerQueue;
  std::unique_ptr<StatusSubscription> subscription;
  std::unique_ptr<Timer> next;
  bool hasHeard = false;    ///< from a client that has not ended yet
  bool isChecking = false;  ///< `check` has not finished
  StatusSnapshot found;     ///< by `check`
  std::string shown;        ///< the last printed text
  int code = 1;
};

}  // namespace kestrune
