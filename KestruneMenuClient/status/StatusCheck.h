#pragma once

#include <functional>
#include <memory>
#include <string>

#include "KestruneMenuClient/settings/Preferences.h"
#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "ports/Platform.h"

namespace kestrune {

/// Finds out how things are without a client: nothing is shown, started or stopped. Main thread; in a
/// `std::shared_ptr`.
class StatusCheck : public std::enable_shared_from_this<StatusCheck> {
 public:
  using Completion = std::function<void(const StatusSnapshot&)>;

  /// `platform` outlives this.
  explicit StatusCheck(Platform& platform);

  /// Calls `completion` once. With auto-connect off the backend is not asked. One run at a time.
  void run(const Completion& completion);

  /// Drops a run that is under way, and kills its command. `completion` is not called any more.
  void abandon();

 private:
  void askBackend(const Completion& completion);

  Platform& platform;
  const Preferences preferences;
  const std::string repoPath;
  const std::unique_ptr<PathMonitor> pathMonitor;
  const std::unique_ptr<DispatchQueue> monitorQueue;
  const std::unique_ptr<DispatchQueue> workerQueue;
  bool networkIsWatched = false;
  StatusSnapshot found;  ///< what the runs so far have found
};

}  // namespace kestrune
