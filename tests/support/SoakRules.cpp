#include "tests/support/SoakRules.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

#include "KestruneMenuClient/Text.h"

namespace kestrune::testing {

namespace {

constexpr std::size_t rows = 29;
constexpr std::array<std::size_t, 3> separators{12, 19, 28};
constexpr Seconds sessionInterval{45};
constexpr auto envFile = "/home/u/backend/.env";
constexpr auto settingsSaved = "save the settings";

const char* describe(const NetworkPath& path) {
  if (!path.satisfied) return "網路未連線";
  if (path.usesWiFi) return "Wi-Fi 已連線";
  if (path.usesWiredEthernet) return "有線網路已連線";
  return path.usesCellular ? "行動網路已連線" : "網路已連線";
}

ConnectionLampState lampOf(const SoakReport& report) {
  if (report.fault) return ConnectionLampState::error;
  return report.ok ? ConnectionLampState::ok : ConnectionLampState::warning;
}

bool isGrey(const Image& image) {
  const auto& pixels = image.bitmaps.front().rgba;
  return pixels[0] == pixels[1] && pixels[1] == pixels[2];
}

/// Whether a secret can be read somewhere in `view`, outside the fields that are there to show one.
bool shows(const View& view, std::string_view secret) {
  const auto holds = [secret](const std::string& text) { return text.find(secret) != std::string::npos; };
  const bool mayHoldOne = view.kind == ViewKind::secureTextField ||
                          (view.kind == ViewKind::textField && view.identifier.ends_with("_TOKEN"));
  if (!mayHoldOne && holds(view.text)) return true;
  if (holds(view.placeholder) || holds(view.accessibilityLabel) || holds(view.identifier)) return true;
  return std::any_of(view.children.begin(), view.children.end(),
                     [secret](const View& child) { return shows(child, secret); });
}

template <typename T>
void keepLast(std::vector<T>& all) {
  if (all.size() > 1) all.erase(all.begin(), all.end() - 1);
}

/// Gives back the room, too.
template <typename T>
void forget(std::vector<T>& all) {
  std::vector<T>().swap(all);
}

}  // namespace

SoakRules::SoakRules(FakePlatform& givenMachine, AppDelegate& givenController)
    : machine(givenMachine), controller(givenController), state{givenController} {
  machine.loop.whenStepBegins = [this](FakeLoop::Step each) { stepBegins(each); };
  machine.loop.whenStepIsDone = [this](FakeLoop::Step each) { stepIsDone(each); };
}

// --- what happens

void SoakRules::callBegins(const std::string& name) {
  mainStepBegins(name);
}

void SoakRules::callIsDone() {
  mainStepIsDone();
}

void SoakRules::networkWillChange(const NetworkPath& path) {
  coming.push_back(
      {.kind = Coming::Kind::updatePath, .jobsBefore = machine.loop.mainJobs(), .network = describe(path)});
}

void SoakRules::shellLineBegins(const std::vector<std::string>& arguments) {
  const std::string& line = arguments.back();
  rule(line.find(secret) == std::string::npos, "a token stands in a command line");
  ++linesRunning;
  if (ending) {
    rule(line.find("launchctl") != std::string::npos, "another command than the stop after the end: " + line);
    rule(!std::exchange(stopped, true), "the stop runs twice");
    rule(machine.processes.reservations == 1, "the stop runs beside what it is to stop");
    return;
  }
  rule(linesRunning == 1, "two commands run at a time");
  lineBegan = machine.clock.awakeTime();
  jumped = Seconds{0};
  rule(current.has_value() && !inMainStep, "the main thread runs a command");
  const Work work = line.find("launchctl") != std::string::npos        ? Work::stop
                    : line.find("client refresh") != std::string::npos ? Work::refresh
                                                                       : Work::status;
  rule(work != Work::status || line.find("client status") != std::string::npos,
       "an unknown command: " + line);
  rule(current->work == work, "the worker runs another command than what it was given: " + line);
  ++worksDone;
}

void SoakRules::shellLineIsDone(const SoakReport& given) {
  --linesRunning;
  if (ending) return;
  report.emplace(given);
  const bool isStop = current->work == Work::stop;
  const Seconds limit = (isStop ? AppDelegate::stopTimeout : AppDelegate::defaultTimeout) + Seconds{0.3};
  rule(machine.clock.awakeTime() - lineBegan <= limit + jumped, "a command is waited for beyond its limit");
}

void SoakRules::localServiceIsAsked(const SoakSession& given) {
  rule(current && !inMainStep && current->work == Work::session, "the local service is asked out of turn");
  answer = given;
  ++worksDone;
}

// --- steps

void SoakRules::stepBegins(FakeLoop::Step each) {
  if (each == FakeLoop::Step::worker) return workerBegins();
  loopStep = each;
  static constexpr const char* names[] = {"a job", "a delayed job", "a tick"};
  mainStepBegins(names[static_cast<std::size_t>(each)]);
  if (each != FakeLoop::Step::main) return;
  const auto known =
      std::find_if(coming.begin(), coming.end(), [](const Coming& next) { return next.jobsBefore == 0; });
  if (known != coming.end()) {
    event = *known;
    coming.erase(known);
  }
  for (auto& next : coming) --next.jobsBefore;
  static constexpr const char* kinds[] = {"announce a reconnect", "update the path", "act on the path",
                                          "take a result"};
  if (event) step = kinds[static_cast<std::size_t>(event->kind)];
}

void SoakRules::stepIsDone(FakeLoop::Step each) {
  if (each == FakeLoop::Step::worker) {
    workerIsDone();
  } else {
    mainStepIsDone();
  }
}

void SoakRules::workerBegins() {
  if (ending) return;
  rule(!current, "two jobs of the worker run at a time");
  rule(!tasks.empty(), "a job of the worker that nobody knows of");
  current = tasks.front();
  tasks.pop_front();
  worksDone = 0;
}

void SoakRules::workerIsDone() {
  if (ending) return;
  rule(worksDone == 1 && linesRunning == 0, "a job of the worker does not do one thing");
  rule(machine.loop.mainJobs() > 0, "a job of the worker has no result");
  coming.push_back({.kind = Coming::Kind::takeResult,
                    .jobsBefore = machine.loop.mainJobs() - 1,
                    .task = *current,
                    .report = report.value_or(SoakReport{}),
                    .session = answer});
  current.reset();
  report.reset();
}

void SoakRules::mainStepBegins(std::string name) {
  step = std::move(name);
  rule(!inMainStep, "a step of the main thread inside another");
  inMainStep = true;
  jobsAtBegin = machine.loop.mainJobs();
  tasksAtBegin = machine.loop.workerJobs();
  event.reset();
  queued.reset();
  drawing.reset();
  drawings = notifications = 0;
}

void SoakRules::mainStepIsDone() {
  ++stepsDone;
  if (!loopStep) {
    expectCommand(step);
  } else if (*loopStep == FakeLoop::Step::tick) {
    expectTick();
  } else if (*loopStep == FakeLoop::Step::delayed) {
    --delayed;
    if (!status) expectRefresh();
  } else if (event) {
    expect(*event);
  }
  checkQueue();
  checkState();
  checkDrawings();
  checkMessages();
  forgetWhatWasSeen();
  loopStep.reset();
  inMainStep = false;
  history.push_back(std::exchange(step, {}));
  if (history.size() > 15) history.pop_front();
}

// --- what must come of it

void SoakRules::expectStart() {
  expectRefresh();
  draw("正在檢查狀態…", ConnectionLampState::warning);
}

void SoakRules::expectTick() {
  if (reconnect) return;
  if (!autoConnect) return expectDisabledState();
  if (!status) expectRefresh();
}

void SoakRules::expectCommand(const std::string& action) {
  if (action == "start") {
    expectStart();
  } else if (action == "toggleAutoConnect") {
    autoConnect = !autoConnect;
    if (autoConnect) return expectReconnect();
    queued = {Work::stop, action};
    expectDisabledState();
  } else if (action == "toggleKeepAwake") {
    keepAwake = !keepAwake;
    expectSync();
    draw(keepAwake ? "保持喚醒已開啟" : "保持喚醒已關閉",
         autoConnect ? ConnectionLampState::warning : ConnectionLampState::error);
  } else if (action == "toggleConnectionMode") {
    official = !official;
    draw(official ? "已切換到官方 ChatGPT 模式" : "已切換到 Kestrune 自托管模式",
         ConnectionLampState::warning, false);
  } else if (action == "toggleLaunchAtLogin") {
    if (autoConnect) return expectReconnect();
    expectDisabledState();
  } else if (action == "refreshNow") {
    autoConnect = true;
    expectReconnect();
  } else if (action == settingsSaved) {
    const bool written = std::find(machine.log.begin(), machine.log.end(), std::string("write ") + envFile) !=
                         machine.log.end();
    if (!written || machine.fileManager.writeError) return;
    const bool kept = std::find(machine.log.begin(), machine.log.end(),
                                "write privately " + std::string(envFile) + ".previous") != machine.log.end();
    notifications = kept ? 1 : 0;
    expectReconnect();
  } else if (action == "terminate") {
    held = false;
  } else if (action == "stopConnection") {
    queued = {Work::stop, action};
  } else if (action == "showStatus" || action == "showCodexRuntimeStatus") {
    queued = {Work::status, action};
  }
}

void SoakRules::expect(const Coming& known) {
  switch (known.kind) {
    case Coming::Kind::announceReconnect:
      reconnect = true;
      expectSync();
      return draw("正在重新連線…", ConnectionLampState::warning);
    case Coming::Kind::updatePath:
      coming.push_back(
          {.kind = Coming::Kind::actOnPath, .jobsBefore = jobsAtBegin, .changed = network != known.network});
      network = known.network;
      return;
    case Coming::Kind::actOnPath:
      return expectPathAct(known.changed);
    case Coming::Kind::takeResult:
      return expectResult(known);
  }
}

void SoakRules::expectPathAct(bool changed) {
  notifications = changed ? 1 : 0;
  if (!autoConnect) return expectDisabledState();
  if (changed) return expectReconnect();
  if (!reconnect && !status) expectRefresh();
}

void SoakRules::expectResult(const Coming& known) {
  if (known.task.work == Work::status) expectSummaries(known.report);
  if (known.task.wantedBy.empty()) {
    if (known.task.work == Work::status) return expectStatus(known.report);
    if (known.task.work == Work::refresh) {
      ++delayed;
      return;
    }
    live = false;
    sessionTold = machine.clock.continuousTime();
    session = known.session;
    expectEndOfRefresh();
  } else if (known.task.wantedBy == "showStatus") {
    if (!status) expectRefresh();
  } else if (known.task.wantedBy == "showCodexRuntimeStatus") {
    draw("Codex 診斷已更新", lampOf(known.report), false);
  } else if (known.task.wantedBy == "stopConnection") {
    autoConnect = reconnect = held = false;
    session = {"未同步", "尚未啟動"};
    draw("已手動關停，背景服務已停止", ConnectionLampState::error);
  }
}

void SoakRules::expectStatus(const SoakReport& told) {
  const ConnectionLampState lamp = lampOf(told);
  afterSession.emplace(Drawing{told.ok ? std::string(menuLabel(lamp)) : told.firstLine, lamp});
  if (told.ok) {
    expectSync();
  } else {
    held = false;
  }
  const bool tooEarly = sessionTold && machine.clock.continuousTime() - *sessionTold < sessionInterval;
  if (tooEarly) return expectEndOfRefresh();
  if (!isTokenThere()) {
    session = {"未配置", "未配置"};
    return expectEndOfRefresh();
  }
  live = true;
  queued = {Work::session, ""};
}

void SoakRules::expectSummaries(const SoakReport& told) {
  summaries =
      told.summaries.value_or(SoakSummaries{state.codexVersionSummary, state.codexRemoteControlSummary,
                                            state.codexAppSummary, state.chatGPTRemoteSummary});
}

void SoakRules::expectEndOfRefresh() {
  reconnect = status = false;
  ++refreshesDone;
  draw(afterSession->text, afterSession->lamp);
  afterSession.reset();
}

void SoakRules::expectRefresh() {
  status = true;
  queued = {Work::status, ""};
}

void SoakRules::expectReconnect() {
  queued = {Work::refresh, ""};
  coming.push_back({.kind = Coming::Kind::announceReconnect, .jobsBefore = jobsAtBegin});
}

void SoakRules::expectDisabledState() {
  held = false;
  session = {"未同步", "尚未啟動"};
  draw("已停用，不會啟動背景服務", ConnectionLampState::warning);
}

void SoakRules::expectSync() {
  const bool refused = machine.powerAssertions.displayFails || machine.powerAssertions.systemFails;
  held = autoConnect && keepAwake && (held || !refused);
}

void SoakRules::draw(std::string text, ConnectionLampState lamp, bool onButton) {
  drawing = {std::move(text), lamp, onButton};
  ++drawings;
}

bool SoakRules::isTokenThere() const {
  const auto file = machine.fileManager.files.find(envFile);
  if (file == machine.fileManager.files.end() || !isValidUtf8(file->second)) return false;
  const std::string text = "\n" + file->second;
  return text.find("\nKESTRUNE_MAC_SERVICE_TOKEN=") != std::string::npos ||
         text.find("\nHALVASK_MAC_SERVICE_TOKEN=") != std::string::npos;
}

// --- comparisons

void SoakRules::checkQueue() {
  const std::size_t added = machine.loop.workerJobs() - tasksAtBegin;
  same(added, queued ? 1U : 0U, "the jobs that the worker was given");
  if (queued) tasks.push_back(*queued);
  same(machine.loop.workerJobs(), tasks.size(), "the jobs that wait for the worker");
  same(machine.loop.delayedJobs(), delayed, "the jobs that wait for their time");
  same(machine.loop.liveTimers(), ending ? 0U : 1U, "the timers");
}

void SoakRules::checkState() const {
  same(state.statusRefreshInProgress, status, "statusRefreshInProgress");
  same(state.reconnectInProgress, reconnect, "reconnectInProgress");
  same(state.liveSessionRefreshInProgress, live, "liveSessionRefreshInProgress");
  same(controller.isAutoConnectEnabled(), autoConnect, "auto-connect");
  same(controller.isKeepAwakeEnabled(), keepAwake, "keep-awake");
  same(controller.isOfficialConnectionMode(), official, "the official mode");
  same(state.lastPathDescription, network, "the network");
  same(state.currentProjectTitle, session.project, "the project");
  same(state.currentThreadName, session.thread, "the thread");
  same(state.codexVersionSummary, summaries[0], "codexVersionSummary");
  same(state.codexRemoteControlSummary, summaries[1], "codexRemoteControlSummary");
  same(state.codexAppSummary, summaries[2], "codexAppSummary");
  same(state.chatGPTRemoteSummary, summaries[3], "chatGPTRemoteSummary");
  same(state.sleepAssertionActive, held, "sleepAssertionActive");
  const auto& assertions = machine.powerAssertions.held;
  same(assertions.size(), held ? 2U : 0U, "the power assertions that are held");
  if (!held) return;
  const auto holds = [&assertions](std::uint32_t id, PowerAssertionType type) {
    const auto found = assertions.find(id);
    return found != assertions.end() && found->second == type;
  };
  rule(holds(state.displaySleepAssertionID, PowerAssertionType::noDisplaySleep),
       "the display's assertion is lost");
  rule(holds(state.systemSleepAssertionID, PowerAssertionType::preventUserIdleSystemSleep),
       "the system's assertion is lost");
}

void SoakRules::checkDrawings() {
  std::size_t menus = 0;
  std::size_t buttons = 0;
  for (const auto& entry : machine.log) {
    menus += entry.starts_with("setMenu ") ? 1 : 0;
    buttons += entry.starts_with("setButton ") ? 1 : 0;
    rule(entry != "release unknown assertion", "an assertion is released that is not held");
  }
  same(menus, drawings, "the menus that were drawn");
  same(buttons, drawing && drawing->onButton ? 1U : 0U, "the buttons that were drawn");
  menusSeen += menus;
  if (menus > 0) {
    checkMenu(machine.statusBar.menu());
    checkPublished(machine.statusFeed.lines.back());
  }
  if (buttons > 0) checkButton(machine.statusBar.button());
}

void SoakRules::checkMenu(const Menu& menu) const {
  same(menu.items.size(), rows, "the rows of the menu");
  for (std::size_t number = 1; number <= rows; ++number) {
    const MenuItem& item = menu.items[number - 1];
    same(item.id, static_cast<int>(number), "the id of a row");
    const bool isSeparator = std::find(separators.begin(), separators.end(), number) != separators.end();
    same(item.isSeparator, isSeparator, "a separator");
    rule(isSeparator == item.title.empty(), "a row without words");
    keepsSecrets(item.title);
    rule(item.target.lock().get() == &controller, "a row that acts on nobody");
  }
  const auto title = [&menu](std::size_t number) -> const std::string& {
    return menu.items[number - 1].title;
  };
  const auto isOn = [&menu](std::size_t number) { return menu.items[number - 1].checked; };
  same(title(2), std::string(menuIcon(drawing->lamp)) + " 連線狀態：" + drawing->text, "row 2");
  same(title(3), std::string("連接模式：") + (official ? "官方 ChatGPT" : "Kestrune 自托管"), "row 3");
  same(title(4), summaries[0], "row 4");
  same(title(5), summaries[1], "row 5");
  same(title(6), summaries[2], "row 6");
  same(title(7), summaries[3], "row 7");
  same(title(8), "同步專案：" + session.project, "row 8");
  same(title(9), "同步會話：" + AppDelegate::compactThreadName(session.thread), "row 9");
  same(title(10), "目前網路：" + network, "row 10");
  same(title(11), std::string("保持喚醒：") + (held ? "已開啟" : "已關閉"), "row 11");
  rule(isOn(14) == controller.isLaunchAtLoginEnabled(), "row 14 is not in step");
  rule(isOn(15) == autoConnect, "row 15 is not in step");
  rule(isOn(16) == keepAwake, "row 16 is not in step");
  same(title(17), std::string("使用") + (official ? " Kestrune 自托管模式" : "官方 ChatGPT 模式"), "row 17");
  same(title(18),
       reconnect     ? "正在重新檢查並恢復連線…"
       : autoConnect ? "手動停止連線"
                     : "立即重新檢查連線",
       "row 18");
  same(menu.items[17].enabled, !reconnect, "row 18 being enabled");
}

/// What other programs are told is what the menu says.
void SoakRules::checkPublished(const std::string& line) const {
  const auto told = parseStatusJson(line);
  rule(told.has_value(), "a status that nobody can read: " + line);
  same(menuIcon(told->lamp), menuIcon(drawing->lamp), "the lamp that others are told");
  same(told->status, displayRow(drawing->text), "the status that others are told");
  same(told->project, displayRow(session.project), "the project that others are told");
  same(told->network, network, "the network that others are told");
  same(told->keepsAwake, held, "others being told of the assertions");
  same(told->autoConnect, autoConnect, "others being told of auto-connect");
  same(told->reconnecting, reconnect, "others being told of a reconnect");
  keepsSecrets(line);
}

void SoakRules::checkButton(const StatusButton& button) const {
  const std::string words = "Kestrune · " + std::string(menuLabel(drawing->lamp)) + " · " + session.project;
  same(button.toolTip.value_or("absent"), words, "the tooltip");
  same(button.accessibilityLabel.value_or("absent"), words, "what a screen reader says");
  keepsSecrets(words);
  rule(button.image != nullptr, "a button without an image");
  same(isGrey(*button.image), drawing->lamp != ConnectionLampState::ok, "the logo being grey");
}

void SoakRules::checkMessages() const {
  same(machine.notifications.posted.size(), notifications, "the notifications");
  for (const auto& each : machine.notifications.posted) keepsSecrets(each.title + each.body);
  for (const auto& alert : machine.alerts.shown) {
    keepsSecrets(alert.messageText + alert.informativeText);
    rule(!alert.accessoryView || !shows(*alert.accessoryView, secret), "a token shows in a window");
  }
}

void SoakRules::keepsSecrets(const std::string& text) const {
  rule(text.find(secret) == std::string::npos, "a token shows in: " + text);
}

/// A week of all that the fakes wrote down would be all that grows.
void SoakRules::forgetWhatWasSeen() {
  keepLast(machine.statusBar.menus);
  keepLast(machine.statusBar.buttons);
  keepLast(machine.statusFeed.lines);
  forget(machine.log);
  forget(machine.alerts.shown);
  forget(machine.alerts.raised);
  forget(machine.images.asked);
  forget(machine.images.read);
  forget(machine.images.filtered);
  forget(machine.notifications.posted);
  forget(machine.powerAssertions.names);
  forget(machine.powerAssertions.levels);
  forget(machine.userDefaults.asked);
  forget(machine.processes.launches);
  forget(machine.processes.readPatience);
  forget(machine.localService.tokens);
  forget(machine.qrCodes.messages);
  forget(machine.fileManager.asked);
}

void SoakRules::checkIdle(long references) const {
  rule(isIdle(), "something is under way for ever");
  same(machine.loop.mainJobs(), 0U, "the jobs of the main queue");
  same(machine.loop.workerJobs(), 0U, "the jobs of the worker");
  same(machine.loop.delayedJobs(), 0U, "the jobs that wait for their time");
  same(linesRunning, 0, "the commands that run");
  same(controller.weak_from_this().use_count(), references, "those who hold the controller");
}

void SoakRules::checkEnd() const {
  rule(ending && stopped, "an end without the stop");
  rule(machine.powerAssertions.held.empty(), "power assertions that outlive the end");
  same(machine.loop.liveTimers(), 0U, "the timers");
  rule(machine.pathMonitors.onUpdate == nullptr, "the network is watched after the end");
  for (const auto& entry : machine.log)
    rule(!entry.starts_with("set"), "something is drawn after the end: " + entry);
}

void SoakRules::rule(bool holds, const std::string& words) const {
  if (holds) return;
  std::ostringstream text;
  text << withinBytes(words, 1000) << "; in step " << stepsDone << " (" << step << "), after";
  for (const auto& each : history) text << " / " << each;
  throw RuleBroken(text.str());
}

template <typename A, typename B>
void SoakRules::same(const A& actual, const B& expected, const char* what) const {
  if (actual == expected) return;
  std::ostringstream text;
  text << what << ": \"" << actual << "\", not \"" << expected << "\"";
  rule(false, text.str());
}

}  // namespace kestrune::testing
