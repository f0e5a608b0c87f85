#include "adapters/network/NetworkDecision.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "tests/rig/VirtualTime.h"

namespace kestrune::testing {
namespace {

const RoutedPath none;
const RoutedPath wired{{.satisfied = true, .usesWiredEthernet = true}, 2, "gateway", "source"};
const RoutedPath wiFi{{.satisfied = true, .usesWiFi = true}, 3, "gateway", "source"};
const RoutedPath otherWiFi{{.satisfied = true, .usesWiFi = true}, 3, "gateway", "another source"};
const RoutedPath tunnel{{.satisfied = true}, 4, "", "source"};

std::string nameOf(const NetworkPath& path) {
  if (!path.satisfied) return "none";
  if (path.usesWiFi) return "Wi-Fi";
  return path.usesWiredEthernet ? "wired" : "other";
}

/// A simulated machine. A test changes its network with `change`. All times are in milliseconds of virtual
/// time since the construction of this object.
struct Machine {
  struct Report {
    long when;
    std::string path;
  };
  using Said = std::vector<Report>;

  long now() const { return std::lround((clock.awakeTime() - beginning).count() * 1000); }

  void say(const std::optional<NetworkPath>& path) {
    if (path) said.push_back({now(), nameOf(*path)});
  }

  void act() {
    const Seconds present = clock.awakeTime();
    if (!decision.isQuestionDue(present)) return say(decision.takeReport(present));
    ++questions;
    say(decision.takeAnswer(questionsFail ? std::nullopt : std::optional(network), present));
  }

  /// Lets time pass until `end`, and does everything that is due until then.
  void passUntil(long end) {
    const Seconds last = beginning + Seconds{static_cast<double>(end) / 1000};
    for (auto due = decision.due(); due && *due <= last + Seconds{1e-6}; due = decision.due()) {
      clock.sleep(*due - clock.awakeTime());
      act();
    }
    clock.sleep(last - clock.awakeTime());
  }

  /// Changes the network at `when`, and calls `notice`. The real monitor calls `notice` when the kernel sends
  /// a message about a change.
  void change(long when, const RoutedPath& to) {
    passUntil(when);
    network = to;
    decision.notice(clock.awakeTime());
  }

  void resume(long when) {
    passUntil(when);
    decision.resume(clock.awakeTime());
  }

  void startOn(const RoutedPath& path) { change(0, path), passUntil(0); }

  /// Lets another 100 s pass without a change, and returns all reports, such as "wired at 0, none at 7000".
  std::string saidInTheEnd() {
    passUntil(now() + 100'000);
    EXPECT_EQ(decision.due(), std::nullopt);
    std::string all;
    for (const auto& [when, path] : said)
      all += (all.empty() ? "" : ", ") + path + " at " + std::to_string(when);
    return all;
  }

  VirtualClock clock;
  const Seconds beginning = clock.awakeTime();
  NetworkDecision decision;
  RoutedPath network;
  bool questionsFail = false;
  int questions = 0;
  Said said;
};

struct NetworkDecisionTest : ::testing::Test, Machine {};

TEST_F(NetworkDecisionTest, NothingIsDueBeforeTheStart) {
  EXPECT_EQ(decision.due(), std::nullopt);
  EXPECT_FALSE(decision.isQuestionDue(clock.awakeTime()));
  EXPECT_EQ(decision.takeReport(clock.awakeTime()), std::nullopt);
}

/// A change of the network to `path`, or a resume from suspend when `path` is absent.
struct Event {
  long when;
  std::optional<RoutedPath> path;
};
struct Course {
  const char* name;
  RoutedPath first;
  std::vector<Event> events;
  std::string said;
};

struct NetworkDecisionCourse : NetworkDecisionTest, ::testing::WithParamInterface<Course> {};

TEST_P(NetworkDecisionCourse, LeadsToTheseReports) {
  startOn(GetParam().first);
  for (const auto& [when, path] : GetParam().events) path ? change(when, *path) : resume(when);
  EXPECT_EQ(saidInTheEnd(), GetParam().said);
}

const Course courses[] = {
    {"APathAtFirst", wired, {}, "wired at 0"},
    {"NoneAtFirst", none, {}, "none at 0"},
    {"ALoss", wired, {{5000, none}}, "wired at 0, none at 7000"},
    {"OtherTypes", wired, {{5000, wiFi}, {9000, tunnel}}, "wired at 0, Wi-Fi at 5250, other at 9250"},
    {"AnotherNetworkOfTheSameType", wiFi, {{5000, otherWiFi}}, "Wi-Fi at 0, Wi-Fi at 5250"},
    {"WhatIsOverWithinABurst", wired, {{5000, none}, {5200, wired}}, "wired at 0"},
    {"AnInterruption", wired, {{5000, none}, {6990, wired}}, "wired at 0, wired at 7240"},
    {"ANetworkThatReplacesALostOne", wired, {{5000, none}, {6000, wiFi}}, "wired at 0, Wi-Fi at 6250"},
    {"AGainAfterALoss", wired, {{5000, none}, {8000, wired}}, "wired at 0, none at 7000, wired at 8250"},
    {"AResumeOnTheSamePath", wired, {{5000, {}}}, "wired at 0, wired at 5250"},
    {"AResumeWithoutAPath", none, {{5000, {}}}, "none at 0, none at 5250"},
    {"ANetworkThatComesBackTwoSecondsAfterAResume",
     wiFi,
     {{5000, none}, {6000, {}}, {7999, wiFi}},
     "Wi-Fi at 0, Wi-Fi at 8249"},
    {"ALossAMinuteAfterManyChanges",
     none,
     {{1000, wired}, {2000, wiFi}, {3000, wired}, {62'000, none}},
     "none at 0, wired at 1250, Wi-Fi at 2250, wired at 3250, none at 64000"},
    {"ALossThatIsAskedAboutAfterAResume", wiFi, {{5000, none}, {5200, {}}}, "Wi-Fi at 0, none at 7200"},
};
INSTANTIATE_TEST_SUITE_P(All, NetworkDecisionCourse, ::testing::ValuesIn(courses),
                         [](const auto& each) { return each.param.name; });

TEST_F(NetworkDecisionTest, AsksOncePerBurstAndReportsAGainAtItsEnd) {
  startOn(none);
  for (long message = 5000; message < 5250; message += 10) change(message, wired);
  EXPECT_EQ(saidInTheEnd(), "none at 0, wired at 5250");
  EXPECT_EQ(questions, 2);
}

TEST_F(NetworkDecisionTest, AsksAtMostFourTimesASecond) {
  startOn(wired);
  for (long message = 5000; message < 15000; ++message) change(message, wired);
  EXPECT_EQ(saidInTheEnd(), "wired at 0");
  EXPECT_LE(questions, 42);
}

TEST_F(NetworkDecisionTest, LossIsReportedTwoSecondsAfterItsBeginning) {
  startOn(wired);
  for (long message = 5000; message < 9000; message += 300) change(message, none);
  // The report is due at 7000 ms. But the message at 6800 ms begins a burst, which ends at 7050 ms. The
  // report waits for this end, because the network may be back by then.
  EXPECT_EQ(saidInTheEnd(), "wired at 0, none at 7050");
}

TEST_F(NetworkDecisionTest, GainIsReportedAtOnceAfterManyChanges) {
  startOn(none);
  for (long when = 5000; when < 9000; when += 200) change(when, when % 400 == 0 ? wired : none);
  change(9000, wiFi);
  EXPECT_EQ(saidInTheEnd(), "none at 0, wired at 5250, Wi-Fi at 9250");
}

TEST_F(NetworkDecisionTest, FailedFirstQuestionReportsASatisfiedPath) {
  questionsFail = true;
  startOn(none);
  EXPECT_EQ(saidInTheEnd(), "other at 0");
}

TEST_F(NetworkDecisionTest, LastKnownPathStaysWhenAQuestionFails) {
  startOn(wired);
  questionsFail = true;
  change(5000, none);
  resume(20000);
  EXPECT_EQ(saidInTheEnd(), "wired at 0, wired at 20250");
}

TEST_F(NetworkDecisionTest, InterruptionsAreReportedEveryTenSecondsWhileTheLinkFlaps) {
  startOn(wired);
  for (long second = 5; second < 40; ++second) {
    change(second * 1000, none);
    change(second * 1000 + 500, wired);
  }
  EXPECT_EQ(saidInTheEnd(),
            "wired at 0, wired at 5750, wired at 6750, wired at 7750, wired at 17750, wired at 27750, wired "
            "at 37750, wired at 47750");
}

TEST_F(NetworkDecisionTest, ChangesAreReportedEveryTenSecondsWhileTwoNetworksTakeTurns) {
  startOn(wired);
  for (long second = 1; second < 40; ++second) change(second * 1000, second % 2 == 0 ? wired : wiFi);
  change(40000, tunnel);
  EXPECT_EQ(saidInTheEnd(),
            "wired at 0, Wi-Fi at 1250, wired at 2250, Wi-Fi at 3250, wired at 14250, Wi-Fi at 25250, wired "
            "at 36250, other at 46250");
}

TEST_F(NetworkDecisionTest, LossIsReportedAfterTenSecondsWhileTheNetworkFlaps) {
  startOn(none);
  for (long second = 1; second < 60; second += 6) {
    change(second * 1000, wired);
    change((second + 3) * 1000, none);
  }
  EXPECT_EQ(saidInTheEnd(),
            "none at 0, wired at 1250, none at 6000, wired at 7250, wired at 19250, wired at 31250, wired at "
            "43250, wired at 55250, none at 68000");
}

/// A machine with random changes of the network and random resumes from suspend.
struct RandomMachine : Machine {
  /// `slowness` is the longest time between two changes, in milliseconds.
  RandomMachine(unsigned seed, unsigned slowness) {
    std::mt19937 random(seed);
    const std::array paths{none, none, wired, wiFi, otherWiFi, tunnel};
    changeAndNote(0, paths[random() % paths.size()]);
    for (int i = 0; i < 80; ++i) {
      const long when = now() + 1 + static_cast<long>(random() % slowness);
      const std::size_t choice = random() % (paths.size() + 1);
      if (choice == paths.size()) {
        resume(when);
        calmSince = when;
      } else {
        changeAndNote(when, paths[choice]);
      }
    }
    saidInTheEnd();
  }

  /// Returns whether the last `manyReports` reports before the index `report` came within the minute before
  /// `when`.
  static bool flaps(const Said& list, std::size_t report, long when) {
    return report >= NetworkDecision::manyReports &&
           when - list[report - NetworkDecision::manyReports].when < 60'000;
  }

  void changeAndNote(long when, const RoutedPath& to) {
    passUntil(when);
    if (!said.empty()) expectReported();
    const RoutedPath before = network;
    change(when, to);
    if (to.path != before.path) calmSince = when;
  }

  /// Checks that the last report describes the present network. Skips the check if the last change is so
  /// recent that its report may still be due.
  void expectReported() const {
    Said changes;
    for (const auto& report : said) {
      if (changes.empty() || changes.back().path != report.path) changes.push_back(report);
    }
    // A report may come this many milliseconds later than `patience`. A burst of messages delays the report
    // by up to 250 ms. There can be two such bursts: one at the change, and one when the report is due. The
    // decision counts from the start of the burst, which may be earlier than the change.
    constexpr long bursts = 500;
    const bool isFlapping = flaps(changes, changes.size(), calmSince - bursts);
    const long patience = isFlapping ? 10'000 : network.path.satisfied ? 0 : 2'000;
    if (now() - calmSince < patience + bursts) return;
    EXPECT_EQ(said.back().path, nameOf(network.path)) << now();
  }

  long calmSince = 0;
};

TEST(RandomNetworkDecision, ReportsKeepTheRules) {
  for (const unsigned slowness : {100U, 1000U, 4000U, 10'000U, 30'000U}) {
    for (unsigned seed = 1; seed <= 50; ++seed) {
      SCOPED_TRACE(std::to_string(slowness) + ", seed " + std::to_string(seed));
      const RandomMachine machine(seed, slowness);
      EXPECT_EQ(machine.said.back().path, nameOf(machine.network.path));
      Machine::Said changes;
      for (std::size_t i = 0; i < machine.said.size(); ++i) {
        const auto& report = machine.said[i];
        const bool differs = changes.empty() || changes.back().path != report.path;
        const auto& before = differs ? changes : machine.said;
        const std::size_t place = differs ? changes.size() : i;
        if (RandomMachine::flaps(before, place, report.when)) {
          EXPECT_GE(report.when - before[place - 1].when, 10'000) << i;
        }
        if (differs) changes.push_back(report);
      }
    }
  }
}

}  // namespace
}  // namespace kestrune::testing
