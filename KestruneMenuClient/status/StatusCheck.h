#pragma once

#include <functional>
#include <memory>
#include <string>

#include "KestruneMenuClient/settings/Preferences.h"
#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "ports/Platform.h"

namespace kestrune {

/// Determines the status without a running client. Shows, starts and stops nothing. Main thread; owned by a
/// `std::shared_ptr`.
class StatusCheck : public std::enable_shared_from_this<StatusCheck> {
 public:
  using Completion = std::function<void(const StatusSnapshot&)>;

  /// `platform` outlives this.
  explicit StatusCheck(Platform& platform);

  /// Calls `completion` once. Does not ask the backend if auto-connect is off. One run at a time.
  void run(const Completion& completion);

  /// Cancels a run and kills its command. `completion` is not called any more.
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
  StatusSnapshot found;  ///< the results so far
};

}  // namespace kestrune
