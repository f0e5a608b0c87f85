#include "adapters/network/NetworkDecision.h"

#include <algorithm>
#include <utility>

namespace kestrune {

static void remember(std::vector<Seconds>& times, Seconds now) {
  if (times.size() == NetworkDecision::manyReports) times.erase(times.begin());
  times.push_back(now);
}

std::optional<NetworkPath> NetworkDecision::takeAnswer(std::optional<RoutedPath> answer, Seconds now) {
  const Seconds noticed = burst.value_or(now);
  burst.reset();
  if (!answer) answer = current.value_or(RoutedPath{{.satisfied = true}, 0, {}, {}});
  if (answer != current) {
    current = std::move(answer);
    // `reportDue` counts the delay of a report from the first sign of the change, or from a later resume:
    // then `resume` has set `currentSince`.
    currentSince = std::max(currentSince, noticed);
  }
  if (reported && reported->path.satisfied && !current->path.satisfied) owed = true;
  return takeReport(now);
}

Seconds NetworkDecision::reportDue() const {
  if (!reported) return currentSince;
  const bool differs = current->path != reported->path;
  const bool isLoss = differs && !current->path.satisfied;
  const auto& times = differs ? changes : reports;
  const bool flaps = times.size() == manyReports && currentSince - times.front() < timing.memory;
  if (!flaps) return currentSince + (isLoss ? timing.loss : Seconds{0});
  return (isLoss ? std::max(currentSince, times.back()) : times.back()) + timing.rest;
}

std::optional<NetworkPath> NetworkDecision::takeReport(Seconds now) {
  if (!current || !isPending() || now < reportDue()) return std::nullopt;
  if (!reported || current->path != reported->path) remember(changes, now);
  remember(reports, now);
  reported = current;
  owed = false;
  return reported->path;
}

}  // namespace kestrune
