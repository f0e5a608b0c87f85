#include <gtest/gtest.h>

#include <cmath>

#include "platform/linux/PathReports.h"
#include "tests/support/VirtualTime.h"

namespace kestrune::testing {
namespace {

const DefaultPath none;
const DefaultPath wired{{.satisfied = true, .usesWiredEthernet = true}, {{2, "gateway"}}};
const DefaultPath wiFi{{.satisfied = true, .usesWiFi = true}, {{3, "gateway"}}};
const DefaultPath otherWiFi{{.satisfied = true, .usesWiFi = true}, {{3, "another gateway"}}};
const DefaultPath tunnel{{.satisfied = true}, {{4, ""}}};

const std::string wiredWords = "wired";
const std::string wiFiWords = "Wi-Fi";
const std::string lossWords = "none";
const std::string otherWords = "other";

std::string wordsFor(const NetworkPath& path) {
  if (!path.satisfied) return lossWords;
  if (path.usesWiFi) return wiFiWords;
  return path.usesWiredEthernet ? wiredWords : otherWords;
}

/// A machine whose network changes when a test says so. Times are milliseconds since it began.
struct RouteMonitorTiming : ::testing::Test {
  VirtualClock clock;
  const Seconds beginning = clock.awakeTime();
  PathReports reports;
  DefaultPath network = wired;
  bool readingsFail = false;
  Seconds readingTime{0};
  std::optional<Seconds> readingEnds;
  int readings = 0;
  std::vector<std::pair<long, std::string>> said;

  using Said = decltype(said);

  long now() const { return std::lround((clock.awakeTime() - beginning).count() * 1000); }

  void say(const std::optional<NetworkPath>& path) {
    if (path) said.emplace_back(now(), wordsFor(*path));
  }

  void act() {
    if (readingEnds && clock.awakeTime() >= *readingEnds) {
      readingEnds.reset();
      say(reports.endReading(readingsFail ? std::nullopt : std::optional(network), clock.awakeTime()));
    } else if (reports.beginReading(clock.awakeTime())) {
      ++readings;
      readingEnds = clock.awakeTime() + readingTime;
    } else {
      say(reports.takeReport(clock.awakeTime()));
    }
  }

  /// Lets time pass until `end`, doing what is due at each moment.
  void passUntil(long end) {
    const Seconds last = beginning + Seconds{static_cast<double>(end) / 1000};
    for (;;) {
      const auto due = readingEnds ? readingEnds : reports.due();
      // What is due when the test goes on happens before that.
      if (!due || *due > last + Seconds{1e-6}) break;
      clock.sleep(*due - clock.awakeTime());
      act();
    }
    clock.sleep(last - clock.awakeTime());
  }

  /// The kernel says that the network is another one, as of `when`.
  void change(long when, const DefaultPath& to) {
    passUntil(when);
    network = to;
    reports.notice(clock.awakeTime());
  }

  void startOn(const DefaultPath& path) {
    network = path;
    reports.notice(clock.awakeTime());
    passUntil(0);
  }
};

TEST_F(RouteMonitorTiming, HasNothingToDoBeforeItBegins) {
  EXPECT_EQ(reports.due(), std::nullopt);
  EXPECT_FALSE(reports.beginReading(clock.awakeTime()));
  EXPECT_EQ(reports.takeReport(clock.awakeTime()), std::nullopt);
}

TEST_F(RouteMonitorTiming, ReportsTheFirstPathAtOnce) {
  startOn(wired);
  EXPECT_EQ(said, (Said{{0, wiredWords}}));
  EXPECT_EQ(reports.due(), std::nullopt);
}

TEST_F(RouteMonitorTiming, ReportsAtOnceThatThereIsNoneAtFirst) {
  startOn(none);
  EXPECT_EQ(said, (Said{{0, lossWords}}));
  EXPECT_EQ(reports.due(), std::nullopt);
}

TEST_F(RouteMonitorTiming, ReportsAGainAQuarterOfASecondAfterTheFirstMessage) {
  startOn(none);
  change(5000, wired);
  for (long message = 5010; message < 5250; message += 10) change(message, wired);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, lossWords}, {5250, wiredWords}}));
  EXPECT_EQ(readings, 2);
  EXPECT_EQ(reports.due(), std::nullopt);
}

TEST_F(RouteMonitorTiming, ReportsALossTwoSecondsAfterTheFirstMessage) {
  startOn(wired);
  change(5000, none);
  passUntil(6999);
  EXPECT_EQ(said.size(), 1u);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {7000, lossWords}}));
  EXPECT_EQ(readings, 2);
}

TEST_F(RouteMonitorTiming, CountsALossFromItsBeginningWhateverElseComes) {
  startOn(wired);
  change(5000, none);
  for (long message = 5300; message < 9000; message += 300) change(message, none);
  passUntil(20000);
  // The reading of the burst that was under way at 7000 comes first.
  EXPECT_EQ(said, (Said{{0, wiredWords}, {7050, lossWords}}));
}

TEST_F(RouteMonitorTiming, ReportsAChangeOfTypeAsAGain) {
  startOn(wired);
  change(5000, wiFi);
  change(9000, tunnel);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {5250, wiFiWords}, {9250, otherWords}}));
}

TEST_F(RouteMonitorTiming, ReportsAnotherNetworkOfTheSameType) {
  startOn(wiFi);
  change(5000, otherWiFi);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiFiWords}, {5250, wiFiWords}}));
}

TEST_F(RouteMonitorTiming, DoesNotReportABurstThatChangesNothing) {
  startOn(wired);
  change(5000, wired);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}}));
  EXPECT_EQ(readings, 2);
}

TEST_F(RouteMonitorTiming, DoesNotReportWhatIsOverWithinABurst) {
  startOn(wired);
  change(5000, none);
  change(5200, wired);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}}));
}

TEST_F(RouteMonitorTiming, ReportsAnInterruptionOnceAndNotAsALoss) {
  startOn(wired);
  change(5000, none);
  change(6500, wired);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {6750, wiredWords}}));
  EXPECT_EQ(reports.due(), std::nullopt);
}

TEST_F(RouteMonitorTiming, TakesAGainAtTheLastMomentForAnInterruption) {
  startOn(wired);
  change(5000, none);
  change(6990, wired);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {7240, wiredWords}}));
}

TEST_F(RouteMonitorTiming, ReportsOnlyTheNetworkThatComesInPlaceOfALostOne) {
  startOn(wired);
  change(5000, none);
  change(6000, wiFi);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {6250, wiFiWords}}));
}

TEST_F(RouteMonitorTiming, ReportsAGainAfterALossAtOnce) {
  startOn(wired);
  change(5000, none);
  change(8000, wired);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {7000, lossWords}, {8250, wiredWords}}));
}

TEST_F(RouteMonitorTiming, ReadsAThousandMessagesOnce) {
  startOn(none);
  passUntil(5000);
  network = wired;
  for (int message = 0; message < 1000; ++message) reports.notice(clock.awakeTime());
  passUntil(20000);
  EXPECT_EQ(readings, 2);
  EXPECT_EQ(said.size(), 2u);
}

TEST_F(RouteMonitorTiming, ReadsFourTimesASecondHoweverManyMessagesCome) {
  startOn(wired);
  for (long message = 5000; message < 15000; ++message) change(message, wired);
  passUntil(20000);
  EXPECT_LE(readings, 42);
  EXPECT_EQ(said.size(), 1u);
}

TEST_F(RouteMonitorTiming, FallsSilentWhileALinkFlaps) {
  startOn(wired);
  for (long second = 5; second < 60; ++second) {
    change(second * 1000, none);
    change(second * 1000 + 500, wired);
  }
  passUntil(100000);
  // An interruption each, then one more when it has settled.
  EXPECT_EQ(
      said,
      (Said{
          {0, wiredWords}, {5750, wiredWords}, {6750, wiredWords}, {7750, wiredWords}, {61500, wiredWords}}));
}

TEST_F(RouteMonitorTiming, FallsSilentWhileTwoNetworksTakeTurns) {
  startOn(wired);
  for (long second = 12; second < 60; ++second) change(second * 1000, second % 2 == 0 ? wiFi : wired);
  change(60000, tunnel);
  passUntil(100000);
  EXPECT_EQ(said, (Said{{0, wiredWords},
                        {12250, wiFiWords},
                        {13250, wiredWords},
                        {14250, wiFiWords},
                        {15250, wiredWords},
                        {16250, wiFiWords},
                        {17250, wiredWords},
                        {18250, wiFiWords},
                        {62000, otherWords}}));
}

TEST_F(RouteMonitorTiming, ReportsEachChangeOfANetworkThatIsSlow) {
  startOn(none);
  for (long number = 1; number <= 20; ++number) change(number * 4000, number % 2 == 1 ? wired : none);
  passUntil(100000);
  EXPECT_EQ(said.size(), 21u);
}

TEST_F(RouteMonitorTiming, ReportsAnUnchangedPathAgainAfterAResume) {
  startOn(wired);
  passUntil(5000);
  clock.suspend(Seconds{3600});
  reports.resume(clock.awakeTime());
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {5250, wiredWords}}));
  EXPECT_EQ(reports.due(), std::nullopt);
}

TEST_F(RouteMonitorTiming, ReportsAfterAResumeThatThereIsStillNoPath) {
  startOn(none);
  passUntil(5000);
  reports.resume(clock.awakeTime());
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, lossWords}, {5250, lossWords}}));
}

TEST_F(RouteMonitorTiming, GivesANetworkTwoSecondsToComeBackAfterAResume) {
  startOn(wiFi);
  change(5000, none);
  passUntil(6000);
  reports.resume(clock.awakeTime());
  passUntil(7999);
  EXPECT_EQ(said.size(), 1u);
  change(7999, wiFi);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiFiWords}, {8249, wiFiWords}}));
}

TEST_F(RouteMonitorTiming, GivesThatTimeToALossThatIsOnlyReadAfterTheResume) {
  startOn(wiFi);
  change(5000, none);
  passUntil(5200);
  reports.resume(clock.awakeTime());
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiFiWords}, {7200, lossWords}}));
}

TEST_F(RouteMonitorTiming, ReportsOnceWhenANetworkComesBackRightAfterAResume) {
  startOn(wiFi);
  passUntil(5000);
  reports.resume(clock.awakeTime());
  change(5050, none);
  change(6000, wiFi);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiFiWords}, {6250, wiFiWords}}));
}

TEST_F(RouteMonitorTiming, ReadsAgainWhatChangesDuringAReading) {
  startOn(wired);
  readingTime = Seconds{0.1};
  change(5000, wiFi);
  change(5300, tunnel);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {5350, otherWords}}));
  EXPECT_EQ(readings, 3);
}

TEST_F(RouteMonitorTiming, TakesAnUnknownPathForAConnectedOne) {
  readingsFail = true;
  startOn(none);
  EXPECT_EQ(said, (Said{{0, otherWords}}));
}

TEST_F(RouteMonitorTiming, KeepsToWhatItKnowsWhenAReadingFails) {
  startOn(wired);
  readingsFail = true;
  change(5000, none);
  passUntil(20000);
  EXPECT_EQ(said, (Said{{0, wiredWords}}));
  reports.resume(clock.awakeTime());
  passUntil(30000);
  EXPECT_EQ(said, (Said{{0, wiredWords}, {20250, wiredWords}}));
}

}  // namespace
}  // namespace kestrune::testing
