#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

#include "platform/Clock.h"
#include "platform/PathMonitor.h"
#include "platform/linux/RouteTable.h"

namespace kestrune {

/// The default route in use. Two networks of the same type differ in their hops.
struct DefaultPath {
  NetworkPath path;
  std::vector<NextHop> hops;

  bool operator==(const DefaultPath&) const = default;
};

/// Decides when the routes are to be read, and when what they say is to be reported. It has neither clock nor
/// socket: each call says what time it is, on a clock that stands still while the machine sleeps.
///
/// A burst of messages leads to one reading, `gainDelay` after its first. What the reading shows is reported
/// at once, but a loss only when it has lasted `lossDelay` since that first message. A loss that was over
/// sooner, and a resume, are owed one report, even of the same path: what was connected may need another
/// look. A burst that changes nothing is not reported. With `restlessChanges` within `restlessPeriod`, the
/// newest has to last `lossDelay` too, whatever it is, so that a network that flaps falls silent until it
/// settles.
class PathReports {
 public:
  static constexpr Seconds gainDelay{0.25};
  static constexpr Seconds lossDelay{2.0};
  static constexpr Seconds restlessPeriod{10.0};
  static constexpr std::size_t restlessChanges = 8;

  /// Something may have changed. The first call asks for the first reading, without a delay.
  void notice(Seconds now);

  /// The machine has resumed from sleep. What is being held waits anew: networks take a moment to come back.
  void resume(Seconds now);

  /// When to call `beginReading` and `takeReport` next; absent while there is nothing to wait for.
  std::optional<Seconds> due() const;

  /// Whether the routes are to be read now. After true, `endReading` follows.
  bool beginReading(Seconds now);

  /// What the reading found; absent when it failed, and the path is then the one known before, or as good as
  /// connected where none is known: supervision must not stop for want of an answer. Returns what is to be
  /// reported now, if anything.
  std::optional<NetworkPath> endReading(std::optional<DefaultPath> found, Seconds now);

  /// What was held until now and is to be reported, if anything.
  std::optional<NetworkPath> takeReport(Seconds now);

 private:
  bool isPending() const { return owed || current != reported; }
  Seconds readingDue() const { return *burst + (reported ? gainDelay : Seconds{0}); }
  Seconds heldUntil() const;
  std::optional<NetworkPath> reportIfDue(Seconds now);

  std::optional<Seconds> burst;  // the first message since the last reading began
  bool reading = false;
  Seconds burstRead{};  // the first message of the burst that is, or was last, read
  std::optional<DefaultPath> current;
  Seconds currentSince{};
  std::optional<DefaultPath> reported;
  bool owed = false;
  std::array<std::optional<Seconds>, restlessChanges> changes;  // oldest first
};

}  // namespace kestrune
