#include "tests/rig/SoakRules.h"

#include <algorithm>
#include <sstream>

#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "text/Text.h"

namespace kestrune::testing {

namespace {

constexpr std::size_t rows = 29;
constexpr std::size_t jobLimit = 100;  // maximum number of jobs in the worker queue
constexpr Seconds grace{0.3};          // how much longer than its time limit a command may run
constexpr std::string_view lampRowMiddle = " 連線狀態：";

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool isGrey(const Image& image) {
  const auto& pixels = image.bitmaps.front().rgba;
  return pixels[0] == pixels[1] && pixels[1] == pixels[2];
}

/// Returns whether the secret can be read in `view`, outside the fields that are meant for secrets.
bool shows(const View& view, std::string_view secret) {
  const bool mayHoldOne = view.kind == ViewKind::secureTextField ||
                          (view.kind == ViewKind::textField && view.identifier.ends_with("_TOKEN"));
  if (!mayHoldOne && contains(view.text, secret)) return true;
  if (contains(view.placeholder + view.accessibilityLabel + view.identifier, secret)) return true;
  return std::any_of(view.children.begin(), view.children.end(),
                     [secret](const View& child) { return shows(child, secret); });
}

template <typename T>
void keepLast(std::vector<T>& all) {
  if (all.size() > 1) all.erase(all.begin(), all.end() - 1);
}

/// Empties the vectors and frees their memory; clear() would keep the memory.
template <typename... T>
void forget(std::vector<T>&... each) {
  (std::vector<T>().swap(each), ...);
}

}  // namespace

SoakRules::SoakRules(FakePlatform& givenMachine, AppDelegate& givenController)
    : machine(givenMachine), controller(givenController) {
  machine.loop.whenStepIsDone = [this](FakeLoop::Step step) {
    if (step != FakeLoop::Step::worker) look();
  };
}

void SoakRules::shellLineBegins(const std::string& line) {
  keepsSecrets(line);
  ++linesRunning;
  isStop = contains(line, "launchctl");
  lineBegan = machine.clock.awakeTime();
  if (contains(line, "client status")) ++statusLines;
  if (ending) {
    rule(isStop, "another command than the stop after the end: " + line);
    rule(++stopsAtEnd == 1, "the stop runs twice");
    rule(machine.processes.reservations == 1, "the stop runs beside what it is to stop");
  } else {
    rule(linesRunning == 1, "two commands run at a time");
  }
}

void SoakRules::shellLineIsDone() {
  --linesRunning;
  const Seconds limit = isStop ? AppDelegate::stopTimeout : defaultCommandTimeout;
  rule(ending || machine.clock.awakeTime() - lineBegan <= limit + grace, "a command outlives its time limit");
}

void SoakRules::look() {
  ++looks;
  const auto held = machine.powerAssertions.held.size();
  rule(held == 0 || held == 2, "one power assertion is held without the other");
  rule(held == 0 || (controller.isAutoConnectEnabled() && controller.isKeepAwakeEnabled()),
       "power assertions are held against the preferences");
  rule(machine.loop.liveTimers() == (ending ? 0U : 1U), "the number of timers");
  rule(machine.loop.workerJobs() <= jobLimit, "the worker's queue grows");
  rule(machine.notifications.posted.size() <= 1, "two notifications in one step");
  for (const auto& each : machine.notifications.posted) keepsSecrets(each.title + each.body);
  for (const auto& alert : machine.alerts.shown) checkWindow(alert);
  const auto logged = [this](std::string_view prefix) {
    return std::any_of(machine.log.begin(), machine.log.end(),
                       [prefix](const std::string& entry) { return entry.starts_with(prefix); });
  };
  rule(!logged("release unknown assertion"), "an assertion is released that is not held");
  if (logged("setMenu ")) {
    ++menusSeen;
    checkMenu(machine.statusItem.menu());
  }
  if (logged("setButton ")) checkButton(machine.statusItem.button());
  dropOldRecords();
}

void SoakRules::checkMenu(const Menu& menu) const {
  rule(menu.items.size() == rows, "the number of rows");
  for (std::size_t i = 0; i < rows; ++i) {
    const MenuItem& item = menu.items[i];
    const bool isSeparator = i == 11 || i == 18 || i == 27;
    const bool isWell = item.id == static_cast<int>(i + 1) && item.isSeparator == isSeparator &&
                        item.title.empty() == isSeparator && item.target.lock().get() == &controller;
    if (!isWell) rule(false, "row " + std::to_string(i + 1) + " has another id, kind or target");
    keepsSecrets(item.title);
  }
  const auto isOn = [&menu](std::size_t number) { return menu.items[number - 1].checked; };
  rule(isOn(14) == controller.isLaunchAtLoginEnabled(), "row 14 is not in step");
  rule(isOn(15) == controller.isAutoConnectEnabled(), "row 15 is not in step");
  rule(isOn(16) == controller.isKeepAwakeEnabled(), "row 16 is not in step");
  rule(menu.items[10].title.ends_with("已開啟") == !machine.powerAssertions.held.empty(),
       "row 11 is not true");
  const auto published = parseStatusJson(machine.statusFeed.lines.back());
  rule(published.has_value(), "a status line that cannot be read");
  rule(menu.items[1].title.starts_with(std::string(menuIcon(published->lamp)) + std::string(lampRowMiddle)),
       "the lamp that others are told");
  rule(published->lines.at(6) == displayRow(menu.items[7].title), "the project that others are told");
  keepsSecrets(machine.statusFeed.lines.back());
}

void SoakRules::checkButton(const StatusButton& button) const {
  const std::string toolTip = button.toolTip.value_or("");
  keepsSecrets(toolTip);
  rule(button.accessibilityLabel == button.toolTip, "what a screen reader says");
  rule(button.image != nullptr, "a button without an image");
  const bool isOk = toolTip.starts_with("Kestrune · 已連線 · ");
  rule(isGrey(*button.image) != isOk, "the colour of the logo");
}

void SoakRules::checkWindow(const Alert& alert) const {
  keepsSecrets(alert.messageText + alert.informativeText);
  rule(!alert.accessoryView || !shows(*alert.accessoryView, secret), "a token shows in a window");
}

void SoakRules::keepsSecrets(const std::string& text) const {
  if (contains(text, secret)) rule(false, "a token shows in: " + text);
}

/// Deletes old records of the fakes, so that the records do not grow without limit. Moves the log to
/// `history`, which keeps the last 15 entries.
void SoakRules::dropOldRecords() {
  for (auto& entry : machine.log) history.push_back(std::move(entry));
  while (history.size() > 15) history.pop_front();
  keepLast(machine.statusItem.menus);
  keepLast(machine.statusItem.buttons);
  keepLast(machine.statusFeed.lines);
  forget(machine.log, machine.alerts.shown, machine.images.asked, machine.images.read,
         machine.images.filtered, machine.images.messages, machine.notifications.posted,
         machine.powerAssertions.names, machine.powerAssertions.levels, machine.userDefaults.asked,
         machine.processes.launches, machine.processes.readPatience, machine.localService.tokens,
         machine.fileManager.asked);
}

void SoakRules::checkCalm() const {
  const FakeLoop& loop = machine.loop;
  rule(loop.mainJobs() + loop.workerJobs() + loop.delayedJobs() == 0 && linesRunning == 0,
       "something is under way for ever");
  rule(controller.weak_from_this().use_count() == 1, "somebody holds the controller");
  const auto& items = machine.statusItem.menu().items;
  const bool isOn = controller.isAutoConnectEnabled();
  const auto isRow = [&](std::size_t number, const std::string& title) {
    rule(items[number - 1].title == title,
         "row " + std::to_string(number) + " in the calm: " + items[number - 1].title);
  };
  isRow(2,
        isOn ? "🟢 連線狀態：已連線" : "🟡 連線狀態：已停用，不會啟動背景服務");
  isRow(8, isOn ? "同步專案：目前專案" : "同步專案：未同步");
  isRow(18, isOn ? "手動停止連線" : "立即重新檢查連線");
  isRow(11, isOn && controller.isKeepAwakeEnabled() ? "保持喚醒：已開啟" : "保持喚醒：已關閉");
  const std::string& row = items[9].title;
  rule(contains(row, "未知") || contains(row, "未連線") == !network.satisfied, "row 10 in the calm: " + row);
}

void SoakRules::checkEnd() const {
  rule(ending && stopsAtEnd == 1, "an end without the stop");
  rule(machine.powerAssertions.held.empty(), "power assertions that outlive the end");
  rule(machine.loop.liveTimers() == 0, "a timer that outlives the end");
  rule(machine.pathMonitor.onUpdate == nullptr, "the network is watched after the end");
  for (const auto& entry : machine.log)
    rule(!entry.starts_with("set"), "something is drawn after the end: " + entry);
}

void SoakRules::rule(bool holds, std::string_view words) const {
  if (holds) return;
  std::ostringstream text;
  text << withinBytes(words, 1000) << "; in step " << looks << ", after";
  for (const auto& each : history) text << " / " << withinBytes(each, 200);
  throw RuleBroken(text.str());
}

}  // namespace kestrune::testing
