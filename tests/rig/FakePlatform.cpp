#include "tests/rig/FakePlatform.h"

#include <algorithm>
#include <stdexcept>

namespace kestrune::testing {

namespace {

class FakeProcess final : public Process {
 public:
  FakeProcess(FakeProcesses& givenOwner, ChildScript givenScript)
      : owner(givenOwner), script(std::move(givenScript)), end(owner.clock.awakeTime() + script.runtime) {}

  bool isRunning() override {
    const bool answer = runs();
    if (answer && script.whileRunning) script.whileRunning();
    return answer;
  }
  void terminate() override { signal("terminate child", script.ignoresTerminate); }
  void interrupt() override { signal("interrupt child", script.ignoresInterrupt); }
  void terminateGroup() override { signal("terminate group", script.ignoresTerminate); }
  int terminationStatus() const override { return signalled || killed() ? 143 : script.status; }
  std::string readOutput(Seconds patience) override {
    owner.readPatience.push_back(patience);
    if (script.whenRead) script.whenRead();
    return script.output;
  }

 private:
  bool killed() const { return owner.reservations > reservationsBefore; }
  bool runs() const { return !killed() && owner.clock.awakeTime() < end; }
  void signal(const char* words, bool ignored) {
    owner.log.push_back(words);
    if (ignored || !runs()) return;
    signalled = true;
    end = std::min(end, owner.clock.awakeTime() + script.reaction);
  }

  FakeProcesses& owner;
  const ChildScript script;
  const int reservationsBefore = owner.reservations;
  Seconds end;
  bool signalled = false;
};

}  // namespace

void FakeStatusItem::addToStatusBar(double givenLength) {
  log.emplace_back("addToStatusBar");
  length = givenLength;
}

void FakeStatusItem::setButton(const StatusButton& button) {
  log.push_back("setButton " + button.toolTip.value_or("-"));
  buttons.push_back(button);
}

void FakeStatusItem::setMenu(Menu menu) {
  log.push_back("setMenu " + (menu.items.size() > 1 ? menu.items[1].title : "-"));
  menus.push_back(std::move(menu));
  if (whenMenuIsSet) whenMenuIsSet();
}

void FakeStatusFeed::publish(StatusLine newest) {
  const std::string line = newest();
  const bool isNew = lines.empty() || lines.back() != line;
  if (isNew) lines.push_back(line);
  if (isNew || !runs) tell(line);
  runs = true;
}

StatusSubscription FakeStatusFeed::subscribe(std::function<void(const std::string&)> onLine,
                                             std::function<void()> onAbsence) {
  auto made = std::make_shared<std::function<void(const std::optional<std::string>&)>>(
      [onLine = std::move(onLine), onAbsence = std::move(onAbsence)](const std::optional<std::string>& line) {
        line ? onLine(*line) : onAbsence();
      });
  subscribers.push_back(made);
  queue.async([each = subscribers.back(), line = runs ? std::optional(lines.back()) : std::nullopt] {
    if (const auto hear = each.lock()) (*hear)(line);
  });
  return made;
}

void FakeStatusFeed::end() {
  runs = false;
  tell(std::nullopt);
}

void FakeStatusFeed::tell(std::optional<std::string> line) {
  for (const auto& each : subscribers) {
    queue.async([each, line] {
      if (const auto hear = each.lock()) (*hear)(line);
    });
  }
}

void FakeAlerts::answer(std::optional<std::size_t> button, std::map<std::string, std::string> fields) {
  const Open& answered = open.back();
  const std::function<void(const View&)> collect = [&](const View& view) {
    if (!view.identifier.empty()) fields.emplace(view.identifier, view.text);
    for (const auto& child : view.children) collect(child);
  };
  if (answered.alert.accessoryView) collect(*answered.alert.accessoryView);
  AlertQueue::answer(answered.id, {button, std::move(fields)});
}

void FakeAlerts::press(const std::string& action) {
  if (open.back().alert.target.expired()) throw std::logic_error("the buttons of this alert have no target");
  AlertQueue::press(open.back().id, action);
}

ImageRef FakeImages::applyColorControls(const Image& image, const ColorControls& controls) {
  filtered.push_back(controls);
  if (filterFails) return nullptr;
  auto copy = std::make_shared<Image>(image);
  if (controls == ColorControls{}) return copy;
  for (auto& bitmap : copy->bitmaps) {
    for (std::size_t at = 0; at + 3 < bitmap.rgba.size(); at += 4) {
      bitmap.rgba[at] = bitmap.rgba[at + 2] = bitmap.rgba[at + 1];
    }
  }
  return copy;
}

std::optional<std::uint32_t> FakePowerAssertions::create(PowerAssertionType type, int level,
                                                         const std::string& name) {
  const bool display = type == PowerAssertionType::noDisplaySleep;
  log.push_back(display ? "create display assertion" : "create system assertion");
  names.push_back(name);
  levels.push_back(level);
  if (display ? displayFails : systemFails) return std::nullopt;
  held.emplace(++next, type);
  return next;
}

void FakePowerAssertions::release(std::uint32_t identifier) {
  const auto found = held.find(identifier);
  if (found == held.end()) {
    log.push_back("release unknown assertion");
    return;
  }
  log.push_back(found->second == PowerAssertionType::noDisplaySleep ? "release display assertion"
                                                                    : "release system assertion");
  held.erase(found);
}

Result<std::unique_ptr<Process>> FakeProcesses::launch(const std::string& executable,
                                                       const std::vector<std::string>& arguments) {
  log.push_back("launch " + executable);
  launches.push_back({executable, arguments, clock.awakeTime()});
  if (whenLaunched) whenLaunched(arguments.back());
  if (launchError) return Failure{*launchError};
  const auto script = std::find_if(scripts.begin(), scripts.end(), [&arguments](const auto& each) {
    return arguments.back().find(each.first) != std::string::npos;
  });
  return std::make_unique<FakeProcess>(*this, script != scripts.end() ? script->second : ChildScript{});
}

std::size_t FakeProcesses::launchesOf(const std::string& text) const {
  return static_cast<std::size_t>(std::count_if(
      launches.begin(), launches.end(),
      [&text](const Launch& each) { return each.arguments.back().find(text) != std::string::npos; }));
}

FileContents FakeFileManager::contents(const std::string& path) const {
  asked.push_back(path);
  if (whenRead) whenRead();
  if (readError) return {ReadOutcome::temporaryFailure, {}, *readError};
  const auto found = files.find(path);
  if (found == files.end()) return {ReadOutcome::unreadable, {}, "not there"};
  if (found->second.size() > sizeLimit) return {ReadOutcome::tooLarge, {}, "too large"};
  return {ReadOutcome::read, found->second};
}

Result<> FakeFileManager::writeAtomically(const std::string& path, const std::string& contents) {
  log.push_back("write " + path);
  if (writeError) return Failure{*writeError};
  unreadable.erase(path);
  files[path] = contents;
  return Done{};
}

Result<std::string> FakeFileManager::replaceUnreadable(const std::string& path, const std::string& contents) {
  std::string kept;
  if (fileExists(path)) {
    log.push_back("keep unreadable " + path);
    if (keepError) return Failure{*keepError};
    kept = path + ".unreadable";
    if (files.contains(path)) files[kept] = files[path];
  }
  if (const Result<> written = writeAtomically(path, contents); !written) return Failure{written.reason()};
  return kept;
}

Platform platformWith(FakePlatform& fakes, const RealParts& real) {
  const auto either = [](auto* given, auto& fake) -> decltype(*given) {
    return given != nullptr ? *given : fake;
  };
  return {
      .application = &fakes.loop,
      .dispatch = fakes.loop,
      .clock = either(real.clock, fakes.clock),
      .statusItem = fakes.statusItem,
      .statusFeed = fakes.statusFeed,
      .alerts = either(real.alerts, fakes.alerts),
      .images = fakes.images,
      .notifications = fakes.notifications,
      .powerAssertions = fakes.powerAssertions,
      .pathMonitor = fakes.pathMonitor,
      .userDefaults = fakes.userDefaults,
      .mainBundle = fakes.mainBundle,
      .fileManager = fakes.fileManager,
      .workspace = fakes.workspace,
      .processes = either(real.processes, fakes.processes),
      .serviceControl = either(real.serviceControl, fakes.serviceControl),
      .launchAgents = either(real.launchAgents, fakes.launchAgents),
      .localService = fakes.localService,
  };
}

ImageRef makeTestImage(int side, std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                       std::uint8_t alpha) {
  Bitmap bitmap{side, side, {}};
  for (int pixel = 0; pixel < side * side; ++pixel) {
    for (const std::uint8_t channel : {red, green, blue, alpha}) bitmap.rgba.push_back(channel);
  }
  return std::make_shared<Image>(Image{double(side), double(side), true, {bitmap}});
}

}  // namespace kestrune::testing
