#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ports/Clock.h"
#include "ports/PathMonitor.h"

namespace kestrune {

/// The way that the kernel chooses for packets to the outside. Two networks of one type differ in the rest;
/// addresses are in network byte order, empty for none.
struct RoutedPath {
  NetworkPath path;
  unsigned interface = 0;  ///< index
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

/// Decides when to ask the kernel for the path, and when to report its answer. Each call is given the time,
/// from a clock that stands still while the machine sleeps.
///
/// A burst of messages leads to one question. Its answer is reported at once, but a loss only when it has
/// lasted. A loss that ends sooner and a resume from sleep lead to one report, even of an unchanged path:
/// open connections may be broken. While the network flaps, `rest` lies between two reports that differ, and
/// a loss has to last that long; the same holds, counted with all reports, for those of an unchanged path.
class PathReports {
 public:
  static constexpr std::size_t manyReports = 4;

  explicit PathReports(const PathTiming& timing = {});

  /// Something may have changed. The first call asks for the first question, without a delay.
  void notice(Seconds now);
  /// The machine has resumed from sleep. A loss waits anew: networks take a moment to come back.
  void resume(Seconds now);

  /// When to call `beginQuestion`, and `takeReport` if that returns false; absent while there is nothing to
  /// wait for. During a burst that is its end: what is known may be over already.
  std::optional<Seconds> due() const;
  /// Whether a message has come since the last question began.
  bool isInBurst() const { return burst.has_value(); }

  /// Whether to ask the kernel now. After true, `endQuestion` follows.
  bool beginQuestion(Seconds now);
  /// Takes the answer; absent when the question failed. The path is then the last known one, or a satisfied
  /// one of no type: supervision must not stop for want of an answer. Returns what to report now, if
  /// anything.
  std::optional<NetworkPath> endQuestion(std::optional<RoutedPath> answer, Seconds now);
  /// What was held until now, if anything.
  std::optional<NetworkPath> takeReport(Seconds now);

 private:
  bool isPending() const { return owed || current != reported; }
  Seconds questionDue() const { return *burst + (reported ? timing.burst : Seconds{0}); }
  Seconds reportDue() const;

  PathTiming timing;
  std::optional<Seconds> burst;  // its first message
  bool asking = false;
  Seconds askedBurst{};  // the first message of the burst that the newest question is about
  std::optional<RoutedPath> current;
  Seconds currentSince{};
  std::optional<RoutedPath> reported;
  bool owed = false;
  std::vector<Seconds> reports, changes;  // when the newest were reported: all, and those that differed
};

}  // namespace kestrune
