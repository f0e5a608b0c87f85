#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ports/Clock.h"
#include "ports/PathMonitor.h"

namespace kestrune {

/// The route that the kernel chooses for packets to the Internet. The fields after `path` distinguish two
/// networks of the same medium, such as two Wi-Fi networks. The addresses are in network byte order; a
/// missing address is empty.
struct RoutedPath {
  NetworkPath path;
  unsigned interface = 0;  ///< interface index; 0 for none
  std::string gateway;
  std::string source;

  bool operator==(const RoutedPath&) const = default;
};

struct PathTiming {
  Seconds burst{0.25};   ///< delay from the first kernel message of a burst to the route lookup
  Seconds loss{2.0};     ///< how long a loss of the network lasts before it is reported
  Seconds memory{60.0};  ///< the network flaps if `manyReports` reports came within this time before a change
  Seconds rest{10.0};    ///< least time from one report to the next while the network flaps
};

/// Decides when to ask the kernel for the route (`lookUpRoute`), and when to report its answer. `now` is
/// always the time of a clock that stops during suspend. See PathTiming for `loss`, `memory` and `rest`.
///
/// A burst of messages from the kernel leads to one question to the kernel. A changed path is reported at
/// once, but the loss of the network only after it has lasted `loss`. After a shorter loss or a resume from
/// suspend, the path is reported even if it is the same as before, because open connections may be broken.
///
/// While the network flaps (see `memory`), `rest` must pass between two reports, and a loss is reported only
/// after it has lasted `rest`. Reports of an unchanged path do not delay the report of a changed path: for
/// that report, only the earlier reports of a changed path count.
class NetworkDecision {
 public:
  static constexpr std::size_t manyReports = 4;

  explicit NetworkDecision(const PathTiming& givenTiming = {}) : timing(givenTiming) {}

  /// Call this when the path may have changed. The question to the kernel is then due after a short delay, or
  /// at once if no path has been reported yet.
  void notice(Seconds now) { burst = burst.value_or(now); }
  /// Call this when the machine has resumed from suspend. If the network is lost and the loss is not reported
  /// yet, the wait before its report starts again, because networks need a moment to reconnect.
  void resume(Seconds now) {
    owed = true;
    currentSince = now;
    notice(now);
  }

  /// Returns the time of the caller's next step; absent if there is none. If `isQuestionDue` is true at that
  /// time, the step is to ask the kernel for the route. Otherwise it is to call `takeReport`.
  std::optional<Seconds> due() const {
    if (burst) return questionDue();
    return isPending() ? std::optional(reportDue()) : std::nullopt;
  }

  /// Returns whether to ask the kernel now. The caller then passes the answer to `takeAnswer`.
  bool isQuestionDue(Seconds now) const { return burst && now >= questionDue(); }
  /// Takes the answer of the kernel, absent if the question failed. Returns the path to report now, absent if
  /// there is nothing to report. After a failure, the last known path stays. If the first question fails,
  /// assumes that the network is up (`satisfied`) and its medium unknown: without a first report, the client
  /// would not reconnect the backend's services.
  std::optional<NetworkPath> takeAnswer(std::optional<RoutedPath> answer, Seconds now);
  /// Returns the path to report now; absent when no report is due.
  std::optional<NetworkPath> takeReport(Seconds now);

 private:
  bool isPending() const { return owed || current != reported; }
  Seconds questionDue() const { return *burst + (reported ? timing.burst : Seconds{0}); }
  Seconds reportDue() const;

  PathTiming timing;
  std::optional<Seconds> burst;  // time of the first message of the present burst; absent without a burst
  std::optional<RoutedPath> current;
  Seconds currentSince{};
  std::optional<RoutedPath> reported;
  bool owed = false;
  // The times of the last `manyReports` reports. `changes` counts only reports of a changed path.
  std::vector<Seconds> reports, changes;
};

}  // namespace kestrune
