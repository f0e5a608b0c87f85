#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>

#include "adapters/windows/protocol/DialogProtocol.h"
#include "tests/rig/AppDelegateState.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune {

inline void PrintTo(const Menu& menu, std::ostream* stream) {
  *stream << dialogs::encode(dialogs::Request{dialogs::ShowMenu{menu}});
}

inline void PrintTo(const MenuItem& item, std::ostream* stream) {
  PrintTo(Menu{{item}}, stream);
}

inline void PrintTo(const Alert& alert, std::ostream* stream) {
  *stream << dialogs::encode(dialogs::Request{dialogs::ShowAlert{1, alert}});
}

inline void PrintTo(const View& view, std::ostream* stream) {
  PrintTo(Alert{.messageText = "", .informativeText = "", .buttons = {}, .accessoryView = view}, stream);
}

inline void PrintTo(const Result<std::string>& result, std::ostream* stream) {
  *stream << (result ? "ok \"" + *result : "not ok \"" + result.reason()) << "\"";
}

}  // namespace kestrune

namespace kestrune::testing {

/// Returns the window that the client opens when an action has succeeded. `errorWindow` returns the window
/// for an action that has failed.
inline Alert informationWindow(std::string title, std::string content) {
  return {.style = AlertStyle::informational,
          .messageText = std::move(title),
          .informativeText = std::move(content),
          .buttons = {"好"}};
}
inline Alert errorWindow(std::string title, std::string content) {
  return {.style = AlertStyle::warning,
          .messageText = std::move(title),
          .informativeText = std::move(content),
          .buttons = {"好"}};
}

struct ControllerTest : ::testing::Test {
  FakePlatform machine;
  std::shared_ptr<AppDelegate> controller = std::make_shared<AppDelegate>(machine.platform);
  AppDelegateState state{*controller};

  ControllerTest() {
    machine.fileManager.files[environmentScript];
    newCalls();
  }

  /// Returns the calls that the fakes in `machine` have logged since the previous newCalls().
  CallLog newCalls() { return std::exchange(machine.log, {}); }

  /// From now on, a shell line that contains `text` behaves like `script`.
  void shellAnswers(const char* text, ChildScript script) {
    auto& scripts = machine.processes.scripts;
    scripts.insert(scripts.begin(), {text, std::move(script)});
  }
  void backendAnswers(ChildScript script) { shellAnswers("kestrune-mac-client status", std::move(script)); }
  void refreshAnswers(ChildScript script) { shellAnswers("kestrune-mac-client refresh", std::move(script)); }
  void stopAnswers(ChildScript script) { shellAnswers("launchctl bootout", std::move(script)); }

  std::size_t statusQueries() const { return machine.processes.launchesOf("kestrune-mac-client status"); }
  std::size_t reconnects() const { return machine.processes.launchesOf("kestrune-mac-client refresh"); }
  std::size_t stops() const { return machine.processes.launchesOf("launchctl bootout"); }

  /// Runs the next job of the worker thread. Returns by how much the job has advanced `awakeTime`.
  Seconds timeOfWorkerJob() {
    const Seconds begin = machine.clock.awakeTime();
    machine.loop.runOneWorkerJob();
    return machine.clock.awakeTime() - begin;
  }

  /// Performs the action of a row, and runs all jobs that are due.
  void choose(const char* action) {
    controller->performAction(action);
    machine.loop.settle();
  }

  /// Closes the open window and returns it. If another window is waiting, it opens.
  Alert closeWindow() {
    if (machine.alerts.top() == nullptr) throw std::logic_error("no window is open");
    const Alert window = *machine.alerts.top();
    machine.alerts.answer(0);
    machine.loop.settle();
    return window;
  }

  bool isStored(const char* key, bool value) const {
    const auto found = machine.userDefaults.values.find(key);
    return found != machine.userDefaults.values.end() &&
           found->second == std::variant<bool, std::string>(value);
  }

  static constexpr auto envFile = "/home/u/backend/.env";
  static constexpr auto environmentScript = "/home/u/backend/.venv/bin/activate";

  /// Returns the contents of the backend's .env. Creates the file if it is missing.
  std::string& env() { return machine.fileManager.files[envFile]; }

  void setAutoConnect(bool enabled) { machine.userDefaults.setBool("autoConnectEnabled", enabled); }

  void startUp() {
    controller->applicationDidFinishLaunching();
    machine.loop.settle();
    newCalls();
  }

  /// Creates the status item without starting the controller.
  void makeStatusItem() {
    controller->configureStatusItem();
    newCalls();
  }

  void refresh(bool triggerNotification = false) {
    controller->refreshStatus(triggerNotification);
    machine.loop.settle();
  }

  const MenuItem& row(std::size_t number) const { return machine.statusItem.row(number); }
  const std::string& title(std::size_t number) const { return row(number).title; }
  const std::string& statusRow() const { return title(2); }

  static constexpr auto connectedRow = "🟢 連線狀態：已連線";
  static constexpr auto reconnectingRow = "🟡 連線狀態：正在重新連線…";
  static constexpr auto disabledRow = "🟡 連線狀態：已停用，不會啟動背景服務";
  static constexpr auto reconnectingCommand = "正在重新檢查並恢復連線…";
};

struct WithStatusItem : ControllerTest {
  WithStatusItem() { makeStatusItem(); }
};

}  // namespace kestrune::testing
