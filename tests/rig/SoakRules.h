#pragma once

#include <deque>
#include <stdexcept>
#include <string>
#include <string_view>

#include "KestruneMenuClient/AppDelegate.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::testing {

struct RuleBroken : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Uses the fakes to check the invariants of a controller. Throws RuleBroken if an invariant does not hold.
class SoakRules {
 public:
  /// Every token in the test's files contains this text. Except for the input fields of tokens, nothing that
  /// the program shows or runs may contain this text.
  static constexpr std::string_view secret = "S3cretT0ken";

  /// `machine` and `controller` must outlive this object.
  SoakRules(FakePlatform& machine, AppDelegate& controller);

  /// Checks the invariants. The fake loop calls this after every step of the main thread.
  void look();

  void shellLineBegins(const std::string& line);
  void shellLineIsDone();
  /// Called when the clocks have jumped ahead by `duration`. The jump does not count as running time of a
  /// shell line.
  void clockJumped(Seconds duration) { lineBegan += duration; }
  void networkChanges(const NetworkPath& path) { network = path; }
  /// From now on, the only shell line that may run is the one that stops the backend.
  void end() { ending = true; }

  bool isCommandUnderWay() const { return linesRunning > 0; }
  /// Checks that no job is queued and no shell line runs. Checks that the menu shows a healthy backend, or a
  /// stopped backend if auto-connect is off.
  void checkCalm() const;
  /// Checks that the backend was stopped exactly once. Checks that the client holds no power assertion, has
  /// no timer, does not watch the network, and has not changed the menu or the tray icon after the stop.
  void checkEnd() const;
  std::size_t refreshes() const { return statusLines; }
  std::size_t menus() const { return menusSeen; }

 private:
  void checkMenu(const Menu& menu) const;
  void checkButton(const StatusButton& button) const;
  void checkWindow(const Alert& alert) const;
  void keepsSecrets(const std::string& text) const;
  void dropOldRecords();
  void rule(bool holds, std::string_view words) const;

  FakePlatform& machine;
  AppDelegate& controller;
  NetworkPath network;
  int linesRunning = 0;
  bool isStop = false;  ///< whether the running shell line is the one that stops the backend
  Seconds lineBegan{0};
  bool ending = false;
  int stopsAtEnd = 0;
  std::size_t statusLines = 0;
  std::size_t menusSeen = 0;
  std::size_t looks = 0;
  std::deque<std::string> history;  ///< the last entries of the call log, for the message of RuleBroken
};

}  // namespace kestrune::testing
