#include "adapters/network/PathReports.h"

#include <algorithm>
#include <utility>

namespace kestrune {

namespace {

void remember(std::vector<Seconds>& times, Seconds now) {
  if (times.size() == PathReports::manyReports) times.erase(times.begin());
  times.push_back(now);
}

}  // namespace

PathReports::PathReports(const PathTiming& givenTiming) : timing(givenTiming) {}

void PathReports::notice(Seconds now) {
  if (!burst) burst = now;
}

void PathReports::resume(Seconds now) {
  owed = true;
  currentSince = now;
  notice(now);
}

std::optional<Seconds> PathReports::due() const {
  if (asking) return std::nullopt;
  if (burst) return questionDue();
  return isPending() ? std::optional(reportDue()) : std::nullopt;
}

bool PathReports::beginQuestion(Seconds now) {
  if (asking || !burst || now < questionDue()) return false;
  askedBurst = *burst;
  burst.reset();
  asking = true;
  return true;
}

std::optional<NetworkPath> PathReports::endQuestion(std::optional<RoutedPath> answer, Seconds now) {
  asking = false;
  if (!answer) answer = current.value_or(RoutedPath{{.satisfied = true}, 0, {}, {}});
  if (answer != current) {
    current = std::move(answer);
    // `resume` may have set a later time meanwhile.
    currentSince = std::max(currentSince, askedBurst);
  }
  if (reported && reported->path.satisfied && !current->path.satisfied) owed = true;
  return takeReport(now);
}

Seconds PathReports::reportDue() const {
  if (!reported) return currentSince;
  const bool differs = current->path != reported->path;
  const bool isLoss = differs && !current->path.satisfied;
  const auto& times = differs ? changes : reports;
  const bool flaps = times.size() == manyReports && times.back() - times.front() < timing.memory;
  if (!flaps) return currentSince + (isLoss ? timing.loss : Seconds{0});
  return (isLoss ? std::max(currentSince, times.back()) : times.back()) + timing.rest;
}

std::optional<NetworkPath> PathReports::takeReport(Seconds now) {
  if (!current || !isPending() || now < reportDue()) return std::nullopt;
  if (!reported || current->path != reported->path) remember(changes, now);
  remember(reports, now);
  reported = current;
  owed = false;
  return reported->path;
}

}  // namespace kestrune
