#pragma once

#include <functional>
#include <memory>
#include <string>

#include "KestruneMenuClient/status/StatusCheck.h"

namespace kestrune {

enum class StatusFormat { text, json, waybar };

/// Says how things are instead of starting the client: what the client of this user says that runs, else what
/// a check of its own finds. Main thread; in a `std::shared_ptr`.
class StatusCommand final : public ApplicationDelegate, public std::enable_shared_from_this<StatusCommand> {
 public:
  struct Options {
    StatusFormat format = StatusFormat::text;
    bool follow = false;    ///< go on with each change instead of ending
    bool exitZero = false;  ///< end with 0 whatever the lamp says
  };

  /// `print` writes a text at once, and returns false when nobody reads any more. `platform` outlives this.
  StatusCommand(Platform& platform, Options options, std::function<bool(const std::string&)> print);

  /// What the process is to end with, once the loop has.
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
  bool hasHeard = false;    ///< a client that has not ended yet
  bool isChecking = false;  ///< for itself
  std::string shown;        ///< the last text that was printed
  int code = 1;
};

}  // namespace kestrune
