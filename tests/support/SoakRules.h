#pragma once

#include <array>
#include <deque>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMenuClient/status/ConnectionLampState.h"
#include "tests/support/AppDelegateState.h"
#include "tests/support/FakePlatform.h"

namespace kestrune::testing {

struct RuleBroken : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What the rows of the menu say of Codex, in their order.
using SoakSummaries = std::array<std::string, 4>;
inline const SoakSummaries nothingOfCodex{"Codex：尚未檢查", "Remote Control：尚未檢查",
                                          "Codex App：尚未檢查", "ChatGPT Remote：尚未檢查"};

/// What a shell line came to, in the words of the menu.
struct SoakReport {
  bool ok = true;
  bool fault = false;       ///< a line that is not about Codex has one of the markers
  std::string firstLine{};  ///< of its output, as the runner tells it
  std::optional<SoakSummaries> summaries = nothingOfCodex;  ///< absent: whatever the controller makes of it
};

/// What the local service says is selected.
struct SoakSession {
  std::string project = "目前專案";
  std::string thread = "尚未取得";
};

/// Knows from what happened so far what a controller is doing, holding and showing, and compares after every
/// step of the main thread and every job of the worker. Throws RuleBroken.
class SoakRules {
 public:
  /// Part of every token in every file, and of nothing else.
  static constexpr std::string_view secret = "S3cretT0ken";

  SoakRules(FakePlatform& machine, AppDelegate& controller);

  // What happens, told by whoever makes it happen

  /// The start, a command of the menu, or another call of the controller: from outside, on the main thread.
  void callBegins(const std::string& name);
  void callIsDone();
  /// Just before the monitor is told.
  void networkWillChange(const NetworkPath& path);
  void shellLineBegins(const std::vector<std::string>& arguments);
  void shellLineIsDone(const SoakReport& report);
  void localServiceIsAsked(const SoakSession& answer);
  /// The clocks went on while nobody waited.
  void clockJumped(Seconds duration) { jumped += duration; }
  /// The controller is about to be told to end: the only command from now on is the stop.
  void end() { ending = true; }

  // What may be asked

  bool isCommandUnderWay() const { return linesRunning > 0; }
  bool isIdle() const { return tasks.empty() && coming.empty() && !status && !reconnect && !live; }
  /// Nothing is under way, and nothing is left over of what was. `references`: of the controller, apart from
  /// this.
  void checkIdle(long references) const;
  /// The end has come, and nothing came after it.
  void checkEnd() const;
  std::size_t refreshes() const { return refreshesDone; }
  std::size_t menus() const { return menusSeen; }

 private:
  enum class Work { status, refresh, stop, session };
  /// A job of the worker, and who wants it: the refresh cycle, or a command of the menu by its name.
  struct Task {
    Work work;
    std::string wantedBy;
  };
  /// A job of the main queue that is known beforehand, and how many run before it.
  struct Coming {
    enum class Kind { announceReconnect, updatePath, actOnPath, takeResult };
    Kind kind;
    std::size_t jobsBefore;
    std::string network{};
    bool changed = false;
    Task task{};
    SoakReport report{};
    SoakSession session{};
  };
  struct Drawing {
    std::string text;
    ConnectionLampState lamp;
    bool onButton = true;
  };

  void stepBegins(FakeLoop::Step step);
  void stepIsDone(FakeLoop::Step step);
  void mainStepBegins(std::string name);
  void mainStepIsDone();
  void workerBegins();
  void workerIsDone();

  void expectStart();
  void expectTick();
  void expectCommand(const std::string& action);
  void expect(const Coming& event);
  void expectPathAct(bool changed);
  void expectResult(const Coming& event);
  void expectStatus(const SoakReport& report);
  void expectSummaries(const SoakReport& report);
  void expectRefresh();
  void expectReconnect();
  void expectDisabledState();
  void expectSync();
  void expectEndOfRefresh();
  void draw(std::string text, ConnectionLampState lamp, bool onButton = true);
  bool isTokenThere() const;

  void checkState() const;
  void checkQueue();
  void checkDrawings();
  void checkMenu(const Menu& menu) const;
  void checkPublished(const std::string& line) const;
  void checkButton(const StatusButton& button) const;
  void checkMessages() const;
  void keepsSecrets(const std::string& text) const;
  void forgetWhatWasSeen();
  void rule(bool holds, const std::string& words) const;
  template <typename A, typename B>
  void same(const A& actual, const B& expected, const char* what) const;

  FakePlatform& machine;
  AppDelegate& controller;
  const AppDelegateState state;

  // What must be
  bool status = false;
  bool reconnect = false;
  bool live = false;
  bool held = false;
  bool autoConnect = true;
  bool keepAwake = true;
  bool official = false;
  std::string network = "未知網路";
  SoakSummaries summaries = nothingOfCodex;
  SoakSession session;
  std::optional<Seconds> sessionTold;
  std::optional<Drawing> afterSession;  ///< what the refresh shows at its end
  std::deque<Task> tasks;               ///< queued and not begun
  std::vector<Coming> coming;
  std::size_t delayed = 0;

  // The step that runs
  std::optional<FakeLoop::Step> loopStep;
  std::string step;
  bool inMainStep = false;
  std::size_t jobsAtBegin = 0;
  std::size_t tasksAtBegin = 0;
  std::optional<Coming> event;
  std::optional<Task> queued;
  std::optional<Drawing> drawing;
  std::size_t drawings = 0;
  std::size_t notifications = 0;

  // The worker
  std::optional<Task> current;
  int worksDone = 0;
  int linesRunning = 0;
  Seconds lineBegan{0};
  Seconds jumped{0};
  std::optional<SoakReport> report;
  SoakSession answer;

  bool ending = false;
  bool stopped = false;
  std::size_t refreshesDone = 0;
  std::size_t menusSeen = 0;
  std::size_t stepsDone = 0;
  std::deque<std::string> history;
};

}  // namespace kestrune::testing
