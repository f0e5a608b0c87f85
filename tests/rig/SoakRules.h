#pragma once

#include <deque>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMenuClient/AppDelegate.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {

struct RuleBroken : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Invariants of a controller, which hold after every step of the main thread. They look only at the fakes.
/// Throws RuleBroken.
class SoakRules {
 public:
  /// Part of every token in every file, and of nothing else.
  static constexpr std::string_view secret = "S3cretT0ken";

  /// Both must outlive this.
  SoakRules(FakePlatform& machine, AppDelegate& controller);

  /// Checks the invariants; called after every step of the main thread.
  void look();

  void shellLineBegins(const std::string& line);
  void shellLineIsDone();
  /// The clocks jumped.
  void clockJumped(Seconds duration) { lineBegan += duration; }
  void networkChanges(const NetworkPath& path) { network = path; }
  /// From now on the only command is the stop.
  void end() { ending = true; }

  bool isCommandUnderWay() const { return linesRunning > 0; }
  /// Checks that nothing is under way or left over, and that the lamp is green.
  void checkCalm() const;
  /// Checks that the stop ran once, and that nothing happened after it.
  void checkEnd() const;
  std::size_t refreshes() const { return statusLines; }
  std::size_t menus() const { return menusSeen; }

 private:
  void checkMenu(const Menu& menu) const;
  void checkButton(const StatusButton& button) const;
  void checkWindow(const Alert& alert) const;
  void keepsSecrets(const std::string& text) const;
  void forgetWhatWasSeen();
  void rule(bool holds, const std::string& words) const;

  FakePlatform& machine;
  AppDelegate& controller;
  NetworkPath network;
  int linesRunning = 0;
  bool isStop = false;  ///< the line that runs
  Seconds lineBegan{0};
  bool ending = false;
  int stopsAtEnd = 0;
  std::size_t statusLines = 0;
  std::size_t menusSeen = 0;
  std::size_t looks = 0;
  std::deque<std::string> history;  ///< the last lines of the log
};

}  // namespace kestrune::testing
