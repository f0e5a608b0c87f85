#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/rig/SoakRules.h"

namespace kestrune::testing {

/// Makes random choices. The same seed gives the same choices on every machine.
class Chance {
 public:
  explicit Chance(std::uint64_t seed) : engine(seed) {}

  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(engine() % limit); }
  bool comesUp(double probability) { return fraction() < probability; }
  Seconds between(double least, double most) { return Seconds{least + (most - least) * fraction()}; }
  template <typename T>
  const T& among(const std::vector<T>& all) {
    return all[below(all.size())];
  }

 private:
  double fraction() { return static_cast<double>(engine() >> 11) / 9007199254740992.0; }
  std::mt19937_64 engine;
};

/// Runs a controller on fakes, and lets random events happen. SoakRules checks the controller at every step.
class Soak {
 public:
  explicit Soak(std::uint64_t seed);
  Soak(const Soak&) = delete;
  Soak& operator=(const Soak&) = delete;

  /// Lets random events happen for `duration`. Time in suspend and jumps of the clock do not count.
  void live(Seconds duration);
  /// Like live(), but the user quits at a random moment within `duration`.
  void liveAndQuit(Seconds duration);
  /// Stops the events until the next `live`, repairs the backend, cancels all alerts and waits for the next
  /// status. Then checks that no work is under way.
  void calmDown();
  void quit();

  std::size_t refreshes() const { return rules.refreshes(); }
  std::size_t menus() const { return rules.menus(); }
  /// Returns how often each event happened, by the name of the event.
  const std::map<std::string, int>& happened() const { return tally; }

  FakePlatform machine;

 private:
  enum class Mood { well, failing, slow, wild };
  struct Happening {
    const char* name;
    int weight;
    void (Soak::*happen)();
  };
  static const std::vector<Happening> happenings;

  void happen();
  void meanwhile();

  void networkReports();
  void networkFlaps();
  void userChooses();
  void userAnswers();
  void moodChanges();
  void envChanges();
  void serviceChanges();
  void assertionsAreRefused();
  void filesFail();
  void shellIsMissing();
  void machineSleeps();
  void clockJumps();

  std::string output();
  void lineIsLaunched(const std::string& line);
  ChildScript nextChild();
  void serviceIsAsked();

  Chance chance;
  std::shared_ptr<AppDelegate> controller;
  SoakRules rules;

  bool calm = true;
  Mood mood = Mood::well;
  bool serviceIsWell = true;
  Seconds next{0};
  Seconds end{0};
  std::optional<Seconds> quitting;
  std::map<std::string, int> tally;
};

}  // namespace kestrune::testing
