#include "platform/linux/PathReports.h"

#include <algorithm>
#include <utility>

namespace kestrune {

void PathReports::notice(Seconds now) {
  if (!burst) burst = now;
}

void PathReports::resume(Seconds now) {
  owed = true;
  currentSince = now;
  notice(now);
}

std::optional<Seconds> PathReports::due() const {
  if (reading) return std::nullopt;
  if (burst) return readingDue();
  return isPending() ? std::optional(heldUntil()) : std::nullopt;
}

bool PathReports::beginReading(Seconds now) {
  if (reading || !burst || now < readingDue()) return false;
  burstRead = *burst;
  burst.reset();
  reading = true;
  return true;
}

std::optional<NetworkPath> PathReports::endReading(std::optional<DefaultPath> found, Seconds now) {
  reading = false;
  if (!found) found = current ? current : DefaultPath{.path = {.satisfied = true}, .hops = {}};
  if (found != current) {
    current = std::move(found);
    // A resume may have come since, from which the wait began anew.
    currentSince = std::max(currentSince, burstRead);
    std::rotate(changes.begin(), changes.begin() + 1, changes.end());
    changes.back() = burstRead;
  }
  if (reported && reported->path.satisfied && !current->path.satisfied) owed = true;
  return reportIfDue(now);
}

std::optional<NetworkPath> PathReports::takeReport(Seconds now) {
  // With a burst under way, what is known may be over already.
  if (reading || burst || !current) return std::nullopt;
  return reportIfDue(now);
}

Seconds PathReports::heldUntil() const {
  if (!reported) return currentSince;
  const bool isLoss = reported->path.satisfied && !current->path.satisfied;
  const bool isRestless = changes.front() && currentSince - *changes.front() < restlessPeriod;
  return currentSince + (isLoss || isRestless ? lossDelay : gainDelay);
}

std::optional<NetworkPath> PathReports::reportIfDue(Seconds now) {
  if (!isPending() || now < heldUntil()) return std::nullopt;
  reported = current;
  owed = false;
  return reported->path;
}

}  // namespace kestrune
