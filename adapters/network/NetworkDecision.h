#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ports/Clock.h"
#include "ports/PathMonitor.h"

namespace kestrune {

/// The route that the kernel chooses for packets to the Internet. The fields after `path` tell two networks
/// of one medium apart. Addresses are in network byte order, empty for none.
struct RoutedPath {
  NetworkPath path;
  unsigned interface = 0;  ///< interface index
  std::string gateway;
  std::string source;

  bool operator==(const RoutedPath&) const = default;
};

struct PathTiming {
  Seconds burst{0.25};   ///< from the first message of a burst to the question
  Seconds loss{2.0};     ///< how long a loss lasts before it is reported
  Seconds memory{60.0};  ///< the network flaps when the last `manyReports` came within this time
  Seconds rest{10.0};    ///< from one report to the next while it flaps
};

/// Decides whether the network counts as up or down: when to ask the kernel (`lookUpRoute`), and when to
/// report its answer. `now` is the time of a clock that stops during suspend.
///
/// A burst of messages leads to one question. A changed path is reported at once, a loss only after it has
/// lasted `loss`. A shorter loss and a resume from suspend are reported too, even when the path is the same:
/// open connections may be broken. While the network flaps, reports of a changed path are `rest` apart, and a
/// loss must last that long. Reports of an unchanged path are limited in the same way, but all reports count.
class NetworkDecision {
 public:
  static constexpr std::size_t manyReports = 4;

  explicit NetworkDecision(const PathTiming& timing = {});

  /// Something may have changed. The first call leads to a question without delay.
  void notice(Seconds now);
  /// The machine has resumed. The time of a loss starts again, because networks need a moment to reconnect.
  void resume(Seconds now);

  /// When to ask the kernel, or else when to call `takeReport`; absent when there is nothing to wait for.
  /// During a burst it is the time of the next question, because the known path may be outdated.
  std::optional<Seconds> due() const;

  /// Whether to ask the kernel now. The caller then passes the answer to `takeAnswer`.
  bool isQuestionDue(Seconds now) const { return burst && now >= questionDue(); }
  /// Takes the answer; absent when the question failed. After a failure the last known path stays. Without
  /// one it assumes a satisfied path of unknown type, so that the client goes on to supervise the backend.
  /// Returns what to report now, if anything.
  std::optional<NetworkPath> takeAnswer(std::optional<RoutedPath> answer, Seconds now);
  /// Returns the report that is due now, if any.
  std::optional<NetworkPath> takeReport(Seconds now);

 private:
  bool isPending() const { return owed || current != reported; }
  Seconds questionDue() const { return *burst + (reported ? timing.burst : Seconds{0}); }
  Seconds reportDue() const;

  PathTiming timing;
  std::optional<Seconds> burst;  // the time of its first message, while one is under way
  std::optional<RoutedPath> current;
  Seconds currentSince{};
  std::optional<RoutedPath> reported;
  bool owed = false;
  std::vector<Seconds> reports, changes;  // times of the newest reports: of all, and of those that differed
};

}  // namespace kestrune
