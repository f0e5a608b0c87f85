#include "tests/rig/Soak.h"

#include <algorithm>

namespace kestrune::testing {

using namespace std::string_literals;

namespace {

constexpr Seconds year{365 * 24 * 3600.0};
constexpr auto envFile = "/home/u/backend/.env";
constexpr auto calmEnv = "KESTRUNE_MAC_SERVICE_TOKEN=S3cretT0ken-mac\n";
constexpr auto calmReport = "[OK] Mac service: running";
constexpr auto codexReport =
    "[OK] Codex CLI: 0.46.0（/usr/local/bin/codex）\n"
    "[FAIL] Codex Remote Control: not enabled\n"
    "  [OK] Codex App: installed  \n"
    "[OK] ChatGPT Remote Ready: yes";

}  // namespace

Soak::Soak(std::uint64_t seed)
    : chance(seed), controller(std::make_shared<AppDelegate>(machine.platform)), rules(machine, *controller) {
  machine.mainBundle.resources["codex-menubar.png"] = "/opt/logo.png";
  machine.images.files["/opt/logo.png"] = makeTestImage(1, 10, 20, 30);
  machine.workspace.launchError = "no such program";
  machine.processes.whenLaunched = [this](const std::string& line) { lineIsLaunched(line); };
  machine.localService.whileAsked = [this] { serviceIsAsked(); };
  machine.fileManager.files[envFile] = calmEnv;
  controller->applicationDidFinishLaunching();
  rules.look();
}

// --- letting time pass

void Soak::live(Seconds duration) {
  calm = false;
  FakeLoop& loop = machine.loop;
  end = machine.clock.awakeTime() + duration;
  next = machine.clock.awakeTime();
  while (machine.clock.awakeTime() < end && !loop.isTerminated()) {
    happen();
    const Seconds until = std::min({next, end, quitting.value_or(end)});
    loop.advance(std::max(Seconds{0}, until - machine.clock.awakeTime()));
  }
}

void Soak::liveAndQuit(Seconds duration) {
  quitting = machine.clock.awakeTime() + chance.between(0, duration.count());
  if (chance.comesUp(0.5)) mood = Mood::slow;
  live(duration + Seconds{1});
  machine.loop.settle();
  rules.checkEnd();
}

void Soak::calmDown() {
  calm = true;
  machine.processes.launchError.reset();
  machine.fileManager.writeError.reset();
  machine.fileManager.files[envFile] = calmEnv;
  machine.powerAssertions.displayFails = machine.powerAssertions.systemFails = false;
  machine.loop.settle();
  while (machine.alerts.top() != nullptr) {
    machine.alerts.answer(std::nullopt);
    machine.loop.settle();
  }
  // Advance by more than the refresh intervals of the controller, so that it refreshes its whole state.
  machine.loop.advance(Seconds{100});
  machine.processes.scripts = {};  // frees memory, because SoakTest measures the heap next
  machine.localService.answer.reset();
  rules.checkCalm();
}

void Soak::quit() {
  controller->performAction("quit");
  if (rules.isCommandUnderWay()) ++tally["an end in the middle of a command"];
  rules.end();
  controller->applicationWillTerminate();
}

/// Called repeatedly while the worker queue runs a command or waits for an answer. Lets random events happen,
/// and runs what is due on the main thread.
void Soak::meanwhile() {
  happen();
  machine.loop.serveMain();
}

// --- the random events

const std::vector<Soak::Happening> Soak::happenings{
    {"a path", 20, &Soak::networkReports},
    {"a flapping link", 4, &Soak::networkFlaps},
    {"a command of the menu", 22, &Soak::userChooses},
    {"an answer", 30, &Soak::userAnswers},
    {"another mood of the backend", 8, &Soak::moodChanges},
    {"another .env", 6, &Soak::envChanges},
    {"another local service", 6, &Soak::serviceChanges},
    {"assertions refused or not", 4, &Soak::assertionsAreRefused},
    {"files that cannot be written or can", 3, &Soak::filesFail},
    {"a shell that is gone", 2, &Soak::shellIsMissing},
    {"a sleep of the machine", 3, &Soak::machineSleeps},
    {"a jump of the clock", 1, &Soak::clockJumps},
};

void Soak::happen() {
  if (calm || machine.loop.isTerminated()) return;
  if (quitting && machine.clock.awakeTime() >= *quitting) return quit();
  static const int sum = [] {
    int weights = 0;
    for (const auto& each : happenings) weights += each.weight;
    return weights;
  }();
  while (next <= machine.clock.awakeTime() && machine.clock.awakeTime() < end) {
    // Let some events follow each other closely: many bugs occur only if two events almost coincide.
    next =
        machine.clock.awakeTime() + (chance.comesUp(0.3) ? chance.between(0, 1.5) : chance.between(5, 150));
    int left = static_cast<int>(chance.below(static_cast<std::size_t>(sum)));
    const auto chosen = std::find_if(happenings.begin(), happenings.end(),
                                     [&left](const Happening& each) { return (left -= each.weight) < 0; });
    ++tally[chosen->name];
    (this->*chosen->happen)();
    rules.look();
  }
}

void Soak::networkReports() {
  // Wi-Fi is listed twice, so that it is chosen twice as often as each other path.
  static const std::vector<NetworkPath> paths{{},
                                              {.satisfied = true},
                                              {.satisfied = true, .usesWiFi = true},
                                              {.satisfied = true, .usesWiFi = true},
                                              {.satisfied = true, .usesWiredEthernet = true}};
  const NetworkPath path = chance.among(paths);
  rules.networkChanges(path);
  machine.pathMonitor.report(path);
}

void Soak::networkFlaps() {
  for (std::size_t left = 2 + chance.below(6); left > 0; --left) networkReports();
}

void Soak::userChooses() {
  const bool isOff = !controller->isAutoConnectEnabled();
  std::vector<std::string> offered;
  for (const auto& item : machine.statusItem.menu().items) {
    if (item.action.empty() || !item.enabled || item.action == "quit") continue;
    // While auto-connect is off, little happens. So each menu row that enables auto-connect gets eight
    // entries in `offered`, and is chosen more often.
    const bool turnsOn = item.action == "toggleAutoConnect" || item.action == "refreshNow";
    for (int times = isOff && turnsOn ? 8 : 1; times > 0; --times) offered.push_back(item.action);
  }
  const std::string action = chance.among(offered);
  ++tally[action];
  controller->performAction(action);
}

void Soak::userAnswers() {
  const Alert* const top = machine.alerts.top();
  if (top == nullptr) return;
  const bool isSettings = top->buttons.size() == 3;
  if (isSettings && chance.comesUp(0.5)) {
    return machine.alerts.press("showPairingQR");
  }
  const std::size_t button = chance.below(top->buttons.size() + 1);
  std::map<std::string, std::string> fields;
  if (isSettings && chance.comesUp(0.7)) {
    static const std::vector<std::string> values{"S3cretT0ken-new", "", "S3cretT0ken\nTWO=lines",
                                                 "\xff S3cretT0ken"};
    for (const char* key : {"KESTRUNE_MAC_SERVICE_TOKEN", "KESTRUNE_APP_API_TOKEN", "OPENAI_API_KEY"}) {
      if (chance.comesUp(0.5)) fields[key] = chance.among(values);
    }
  }
  if (isSettings && button == 0) ++tally["saved settings"];
  machine.alerts.answer(button < top->buttons.size() ? std::optional(button) : std::nullopt, fields);
}

void Soak::moodChanges() {
  static const std::vector<Mood> moods{Mood::well,    Mood::well, Mood::well,
                                       Mood::failing, Mood::slow, Mood::wild};
  mood = chance.among(moods);
  machine.processes.launchError.reset();
}

void Soak::envChanges() {
  static const std::vector<std::string> contents{
      calmEnv, "HALVASK_MAC_SERVICE_TOKEN=S3cretT0ken-legacy\n",
      "KESTRUNE_MAC_SERVICE_TOKEN=\nOPENAI_API_KEY=S3cretT0ken-key\nKESTRUNE_APP_API_TOKEN=S3cretT0ken-app\n",
      "KESTRUNE_MAC_SERVICE_TOKEN=S3cretT0ken \xff\n"};
  if (chance.comesUp(0.2)) {
    machine.fileManager.files.erase(envFile);
  } else {
    machine.fileManager.files[envFile] = chance.among(contents);
  }
}

void Soak::serviceChanges() {
  serviceIsWell = chance.comesUp(0.6);
}

void Soak::assertionsAreRefused() {
  machine.powerAssertions.displayFails = chance.comesUp(0.25);
  machine.powerAssertions.systemFails = chance.comesUp(0.25);
}

void Soak::filesFail() {
  const auto failure = [this] {
    return chance.comesUp(0.3) ? std::optional<std::string>("disk full") : std::nullopt;
  };
  machine.fileManager.writeError = failure();
  machine.fileManager.folderError = failure();
  machine.fileManager.removeError = failure();
}

void Soak::shellIsMissing() {
  machine.processes.launchError = "no shell\nat all";
}

void Soak::machineSleeps() {
  machine.clock.suspend(chance.comesUp(0.5) ? chance.between(1, 60) : chance.between(60, 36000));
}

void Soak::clockJumps() {
  if (chance.comesUp(0.5)) return machine.clock.suspend(year);
  machine.clock.sleep(year);
  rules.clockJumped(year);
  next += year;
  end += year;
}

// --- the backend

std::string Soak::output() {
  if (calm) return calmReport;
  const bool isWell = mood == Mood::well || (mood == Mood::slow && chance.comesUp(0.5));
  if (isWell) return calmReport + "\n"s + codexReport;
  const std::vector<std::string> faulty{
      "[FAIL] tunnel: down\n"s + codexReport,
      "desktop bridge 未載入",
      "[FAIL] Codex CLI: 無回應\nbash: no such client",
      "[OK] Codex CLI: " + std::string(chance.below(70), 'x'),
      // The texts from here on are chosen only if `mood` is Mood::wild.
      "",
      "[FAIL] tunnel \xff\xc0\x80",
      std::string(chance.below(1 << (chance.comesUp(0.1) ? 20 : 10)) + 1, 'x'),
      "a\x1b[31m\0\a\b\u202E\u200Bz\x7f\nb"s,
  };
  return faulty[chance.below(mood == Mood::wild ? faulty.size() : 4)];
}

void Soak::lineIsLaunched(const std::string& line) {
  FakeProcesses& processes = machine.processes;
  processes.scripts = {};
  // Before the client restarts itself, its main thread launches the program with --version, to see whether
  // the program can run. Do not tell `rules` of this launch: they check only the worker's shell lines.
  if (line == "--version") return;
  rules.shellLineBegins(line);
  if (processes.launchError) {
    ++tally["a shell that is missing"];
    return rules.shellLineIsDone();
  }
  processes.scripts = {{"", nextChild()}};
}

ChildScript Soak::nextChild() {
  ChildScript script{.output = output(), .whileRunning = [this] { meanwhile(); }};
  script.whenRead = [this] {
    if (machine.processes.readPatience.back() == Seconds{0}) ++tally["a command that took too long"];
    rules.shellLineIsDone();
  };
  if (calm) return script;
  if (mood == Mood::failing || chance.comesUp(0.05)) script.status = static_cast<int>(chance.below(3));
  if (mood == Mood::slow ? chance.comesUp(0.5) : chance.comesUp(0.02)) {
    script.runtime = chance.comesUp(0.3) ? chance.between(12, 60) : chance.between(0, 12.2);
  } else if (chance.comesUp(0.3)) {
    script.runtime = chance.between(0, 1.5);
  }
  script.ignoresTerminate = chance.comesUp(0.3);
  script.ignoresInterrupt = chance.comesUp(0.3);
  script.reaction = chance.between(0, 0.3);
  return script;
}

void Soak::serviceIsAsked() {
  static const std::vector<std::optional<std::string>> good{
      R"({"projects": [{"title": "no"}, {"selected": true, "title": "app", "thread_name": "fix it"}]})",
      R"({"projects": [{"selected": true, "title": "\u0007\u202Eapp\n", "thread_name": ""}]})"};
  static const std::vector<std::optional<std::string>> bad{
      std::nullopt, "<html>", std::string(5000, '['),
      "{\"projects\": [{\"selected\": true, \"title\": \"\xff\"}]}"};
  machine.localService.answer = calm ? std::nullopt : chance.among(serviceIsWell ? good : bad);
  if (calm || chance.comesUp(0.6)) return;
  for (Seconds left = chance.between(0, 5.5); left.count() > 0; left -= Seconds{0.25}) {
    machine.clock.sleep(std::min(left, Seconds{0.25}));
    meanwhile();
  }
}

}  // namespace kestrune::testing
