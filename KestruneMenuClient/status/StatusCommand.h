#pragma once

#include <functional>
#include <memory>
#include <string>

#include "KestruneMenuClient/status/StatusCheck.h"

namespace kestrune {

enum class StatusFormat { text, json, waybar };

/// The option --status: prints the status of the running client, else the result of its own check. Main
/// thread; owned by a `std::shared_ptr`.
class StatusCommand final : public ApplicationDelegate, public std::enable_shared_from_this<StatusCommand> {
 public:
  struct Options {
    StatusFormat format = StatusFormat::text;
    bool follow = false;    ///< print each change instead of exiting
    bool exitZero = false;  ///< exit with 0 whatever the lamp is
  };

  /// `print` writes a text at once, and returns false when the reader has closed the output. `platform`
  /// outlives this.
  StatusCommand(Platform& platform, Options options, std::function<bool(const std::string&)> print);

  /// The exit status of the process. Valid after the loop has ended.
  int exitCode() const { return code; }

  void applicationDidFinishLaunching() override;
  void applicationWillTerminate() override;

 private:
  void look();
  void heard(const std::string& line);
  void clientIsAbsent();
  void check();
  void after(Seconds delay, void (StatusCommand::*then)());
  void show(const StatusSnapshot& snapshot, bool fromClient);

  Platform& platform;
  const Options options;
  const std::function<bool(const std::string&)> print;
  const std::shared_ptr<StatusCheck> ownCheck;
  std::unique_ptr<StatusSubscription> subscription;
  std::unique_ptr<Timer> next;
  bool hasHeard = false;    ///< from a client that has not ended yet
  bool isChecking = false;  ///< `ownCheck` is running
  std::string shown;        ///< the last printed text
  int code = 1;
};

}  // namespace kestrune
