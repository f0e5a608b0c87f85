#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/launchd/Launchd.h"
#include "ports/Platform.h"
#include "tests/rig/VirtualTime.h"

namespace kestrune::testing {

struct FakeStatusItem final : StatusItem {
  explicit FakeStatusItem(CallLog& givenLog) : log(givenLog) {}
  void addToStatusBar(double givenLength) override;
  bool hasButton() const override { return buttonExists; }
  void setButton(const StatusButton& button) override;
  void setMenu(Menu menu) override;

  CallLog& log;
  bool buttonExists = true;
  double length = 0;
  std::vector<StatusButton> buttons;  ///< all buttons that were set, the newest last
  std::vector<Menu> menus;            ///< all menus that were set, the newest last
  std::function<void()> whenMenuIsSet;

  const StatusButton& button() const { return buttons.back(); }
  const Menu& menu() const { return menus.back(); }
  /// Returns the row with this number, counted from 1.
  const MenuItem& row(std::size_t number) const { return menu().items.at(number - 1); }
};

struct FakeStatusFeed final : StatusFeed {
  explicit FakeStatusFeed(DispatchQueue& givenQueue) : queue(givenQueue) {}
  void publish(StatusLine line) override;
  StatusSubscription subscribe(std::function<void(const std::string&)> onLine,
                               std::function<void()> onAbsence) override;
  void onPerform(std::function<Result<>(const std::string&)> given) override { perform = std::move(given); }
  /// Pretends that the running client has ended. Tells all `subscribers` that no client runs.
  void end();

  DispatchQueue& queue;
  std::vector<std::string> lines;  ///< the published lines, without those that equal the previous line
  bool runs = false;               ///< whether a client runs
  std::function<Result<>(const std::string&)> perform;

 private:
  void tell(std::optional<std::string> line);
  std::vector<std::weak_ptr<std::function<void(const std::optional<std::string>&)>>> subscribers;
};

struct FakeAlerts final : AlertQueue {
  FakeAlerts(DispatchQueue& mainQueue, CallLog& givenLog) : AlertQueue(mainQueue), log(givenLog) {}
  void present(AlertRequest request) override {
    log.emplace_back("present alert");
    if (whenAsked) whenAsked();
    AlertQueue::present(std::move(request));
  }
  /// Answers the top alert with the button number `button`, counted from 0; absent means cancelled. A field
  /// that is not in `fields` keeps its text. If another alert waits to be shown, a job on the main queue
  /// shows it.
  void answer(std::optional<std::size_t> button, std::map<std::string, std::string> fields = {});
  /// Presses the button that has the action `action` in the top alert. If the action requests another alert,
  /// a job on the main queue shows it on top.
  void press(const std::string& action);
  /// Returns the alert that can be answered, or null when no alert is open.
  const Alert* top() const { return open.empty() ? nullptr : &open.back().alert; }

  CallLog& log;
  std::vector<Alert> shown;
  int raises = 0;
  std::function<void()> whenAsked;

 private:
  void show(const Open& one) override {
    shown.push_back(one.alert);
    log.push_back("show alert " + one.alert.messageText);
  }
  void raise() override { ++raises; }
};

struct FakeImages final : Images {
  ImageRef imageFromFile(const std::string& path) override {
    asked.push_back(path);
    const auto found = files.find(path);
    if (found == files.end()) return nullptr;
    return read.emplace_back(std::make_shared<Image>(*found->second));
  }
  ImageRef imageNamed(const std::string& name) override {
    asked.push_back(name);
    const auto found = named.find(name);
    return found != named.end() ? found->second : nullptr;
  }
  ImageRef applyColorControls(const Image& image, const ColorControls& controls) override;
  /// Makes the same QR code for every message: one black pixel.
  std::vector<Bitmap> qrCode(const std::string& message) override {
    messages.push_back(message);
    if (qrCodeFails) return {};
    return {{1, 1, {0, 0, 0, 255}}};
  }

  std::map<std::string, ImageRef> files;
  std::map<std::string, ImageRef> named;
  bool filterFails = false;
  bool qrCodeFails = false;
  std::vector<std::string> asked;  ///< paths and names of all requested images, in order
  std::vector<ImageRef> read;      ///< images read from files, in order
  std::vector<ColorControls> filtered;
  std::vector<std::string> messages;  ///< messages of all requested QR codes, in order
};

struct FakeNotifications final : Notifications {
  explicit FakeNotifications(CallLog& givenLog) : log(givenLog) {}
  void requestAuthorization(unsigned options) override {
    log.push_back("requestAuthorization " + std::to_string(options));
  }
  void add(const Notification& notification) override {
    log.push_back("notify " + notification.title);
    posted.push_back(notification);
  }
  void withdraw(const std::string& identifier) override { withdrawn.push_back(identifier); }

  CallLog& log;
  std::vector<Notification> posted;
  std::vector<std::string> withdrawn;  ///< identifiers of the withdrawn notifications
};

struct FakePowerAssertions final : PowerAssertions {
  explicit FakePowerAssertions(CallLog& givenLog) : log(givenLog) {}
  std::optional<std::uint32_t> create(PowerAssertionType type, int level, const std::string& name) override;
  bool isHeld(std::uint32_t identifier) override {
    return held.contains(identifier) && !lost.contains(identifier);
  }
  void release(std::uint32_t identifier) override;

  CallLog& log;
  bool displayFails = false;
  bool systemFails = false;
  std::map<std::uint32_t, PowerAssertionType> held;
  std::set<std::uint32_t> lost;  ///< assertions for which `isHeld` returns false; set by a test
  std::vector<std::string> names;
  std::vector<int> levels;

 private:
  std::uint32_t next = 41;
};

struct FakePathMonitor final : PathMonitor {
  explicit FakePathMonitor(CallLog& givenLog) : log(givenLog) {}
  void start(DispatchQueue& givenQueue, std::function<void(NetworkPath)> givenOnUpdate) override {
    log.emplace_back("start path monitor");
    queue = &givenQueue;
    onUpdate = std::move(givenOnUpdate);
  }
  void cancel() override {
    log.emplace_back("cancel path monitor");
    onUpdate = nullptr;
  }
  /// Reports `path` as the network path: queues a job that calls `onUpdate`. Does nothing before `start` and
  /// after `cancel`.
  void report(const NetworkPath& path) {
    if (!onUpdate) return;
    queue->async([this, path] {
      // Call a copy of `onUpdate`, because the callback may cancel the monitor, which resets `onUpdate`.
      if (const auto copy = onUpdate) copy(path);
    });
  }

  CallLog& log;
  DispatchQueue* queue = nullptr;
  std::function<void(NetworkPath)> onUpdate;
};

struct FakeUserDefaults final : UserDefaults {
  std::optional<bool> boolForKey(const std::string& key) const override { return value<bool>(key); }
  std::optional<std::string> stringForKey(const std::string& key) const override {
    return value<std::string>(key);
  }
  void setBool(const std::string& key, bool value) override { values.insert_or_assign(key, value); }
  void setString(const std::string& key, const std::string& value) override {
    values.insert_or_assign(key, value);
  }

  std::map<std::string, std::variant<bool, std::string>> values;
  mutable std::vector<std::string> asked;  ///< the keys that were read, in order

 private:
  template <typename Type>
  std::optional<Type> value(const std::string& key) const {
    asked.push_back(key);
    const auto found = values.find(key);
    const auto* const stored = found != values.end() ? std::get_if<Type>(&found->second) : nullptr;
    return stored != nullptr ? std::optional(*stored) : std::nullopt;
  }
};

struct FakeMainBundle final : MainBundle {
  std::string bundlePath() const override { return bundle; }
  std::optional<std::string> executablePath() const override { return executable; }
  std::optional<std::string> pathForResource(const std::string& name,
                                             const std::string& extension) const override {
    return valueIn(resources, name + "." + extension);
  }
  std::optional<std::string> environmentVariable(const std::string& name) const override {
    return valueIn(environment, name);
  }
  std::string currentDirectoryPath() const override { return currentDirectory; }

  std::string bundle = "/opt/kestrune";
  std::optional<std::string> executable = "/opt/kestrune/KestruneMenuClient";
  std::string currentDirectory = "/home/u/backend";
  std::map<std::string, std::string> environment;
  std::map<std::string, std::string> resources;  ///< paths of resources; the keys are "name.extension"

 private:
  static std::optional<std::string> valueIn(const std::map<std::string, std::string>& all,
                                            const std::string& key) {
    const auto found = all.find(key);
    return found != all.end() ? std::optional(found->second) : std::nullopt;
  }
};

/// Describes how a fake child process behaves.
struct ChildScript {
  Seconds runtime{0};    ///< how long the child runs if it gets no signal
  int status = 0;        ///< exit status if no signal ends the child
  std::string output{};  ///< what the child writes to standard output and standard error
  bool ignoresTerminate = false;
  bool ignoresInterrupt = false;
  Seconds reaction{0};  ///< how long the child goes on after a signal that it does not ignore
  /// Called by isRunning() before it returns true.
  std::function<void()> whileRunning{};
  std::function<void()> whenRead{};  ///< called when the child's output is read
};

struct FakeProcesses final : Processes {
  FakeProcesses(VirtualClock& givenClock, CallLog& givenLog) : clock(givenClock), log(givenLog) {}
  Result<std::unique_ptr<Process>> launch(const std::string& executable,
                                          const std::vector<std::string>& arguments) override;
  void reserveForThisThread() override {
    log.push_back("reserve processes");
    ++reservations;
  }

  /// Pairs of a text and a behaviour. The first pair whose text occurs in a child's last argument decides how
  /// the child behaves. If no pair matches, the child ends at once, with status 0 and no output.
  std::vector<std::pair<std::string, ChildScript>> scripts;
  std::optional<std::string> launchError;
  /// Called at each launch with the last argument, before the entry of `scripts` is chosen.
  std::function<void(const std::string&)> whenLaunched;

  struct Launch {
    std::string executable;
    std::vector<std::string> arguments;
    Seconds at;
  };
  std::vector<Launch> launches;
  /// Returns how many launches had a last argument that contains `text`.
  std::size_t launchesOf(const std::string& text) const;
  std::vector<Seconds> readPatience;
  int reservations = 0;  ///< number of calls of reserveForThisThread()

  VirtualClock& clock;
  CallLog& log;
};

struct FakeLocalService final : LocalService {
  FakeLocalService(VirtualClock& givenClock, CallLog& givenLog) : clock(givenClock), log(givenLog) {}
  std::optional<std::string> getProjects(const std::string& token) override {
    log.push_back("ask local service");
    tokens.push_back(token);
    if (whileAsked) whileAsked();
    clock.sleep(duration);
    return answer;
  }

  VirtualClock& clock;
  CallLog& log;
  std::optional<std::string> answer;
  Seconds duration{0};
  std::vector<std::string> tokens;  ///< the bearer token of each request, in order
  std::function<void()> whileAsked;
};

struct FakeFileManager final : FileManager {
  explicit FakeFileManager(CallLog& givenLog) : log(givenLog) {}
  bool fileExists(const std::string& path) const override {
    return files.contains(path) || unreadable.contains(path);
  }
  FileContents contents(const std::string& path) const override;
  Result<> writeAtomically(const std::string& path, const std::string& contents) override;
  Result<> writePrivately(const std::string& path, const std::string& contents) override {
    log.push_back("write privately " + path);
    if (keepError) return Failure{*keepError};
    files[path] = contents;
    return Done{};
  }
  Result<std::string> replaceUnreadable(const std::string& path, const std::string& contents) override;
  Result<> createDirectory(const std::string& path) override {
    log.push_back("create folder " + path);
    if (folderError) return Failure{*folderError};
    return Done{};
  }
  void removeItem(const std::string& path) override {
    log.push_back("remove " + path);
    if (removeError) return;
    files.erase(path);
    unreadable.erase(path);
  }
  std::string homeDirectoryPath() const override { return "/home/u"; }

  CallLog& log;
  std::map<std::string, std::string> files;
  std::set<std::string> unreadable;        ///< files that exist but cannot be read
  std::optional<std::string> writeError;   ///< if set, the error of `writeAtomically` and `replaceUnreadable`
  std::optional<std::string> folderError;  ///< if set, the error of every `createDirectory`
  std::optional<std::string> removeError;  ///< if set, every removal fails
  /// If set, `writePrivately` fails with this error. If there is an old file, `replaceUnreadable` fails with
  /// it too, as if the old file could not be kept under another name.
  std::optional<std::string> keepError;
  /// If set, every read fails with this error. The failure is temporary (`ReadOutcome::temporaryFailure`).
  std::optional<std::string> readError;
  mutable std::vector<std::string> asked;  ///< the files that were read, in order
  std::function<void()> whenRead;          ///< called before each read
};

struct FakeWorkspace final : Workspace {
  explicit FakeWorkspace(CallLog& givenLog) : log(givenLog) {}
  void open(const std::string& path) override { log.push_back("open " + path); }
  Result<> openNewInstance(const std::string& bundlePath) override {
    log.push_back("open new instance of " + bundlePath);
    if (launchError) return Failure{*launchError};
    return Done{};
  }

  CallLog& log;
  std::optional<std::string> launchError;
};

struct FakePlatform;

/// Real ports for a fake platform. For each port that is null, the platform uses the fake.
struct RealParts {
  Clock* clock = nullptr;
  Processes* processes = nullptr;
  const ServiceControl* serviceControl = nullptr;
  LaunchAgents* launchAgents = nullptr;
  Alerts* alerts = nullptr;
};
Platform platformWith(FakePlatform& fakes, const RealParts& real);

struct FakePlatform {
  CallLog log;
  VirtualClock clock;
  FakeLoop loop{clock, log};
  FakeStatusItem statusItem{log};
  FakeStatusFeed statusFeed{loop.mainQueue()};
  FakeAlerts alerts{loop.mainQueue(), log};
  FakeImages images;
  FakeNotifications notifications{log};
  FakePowerAssertions powerAssertions{log};
  FakePathMonitor pathMonitor{log};
  FakeUserDefaults userDefaults;
  FakeMainBundle mainBundle;
  FakeProcesses processes{clock, log};
  LaunchdServiceControl serviceControl{501};
  FakeFileManager fileManager{log};
  LaunchdAgents launchAgents{fileManager};
  FakeLocalService localService{clock, log};
  FakeWorkspace workspace{log};
  Platform platform = platformWith(*this, {});
};

/// Makes an image with one bitmap: a square with sides of `side` pixels, all of the same colour.
ImageRef makeTestImage(int side, std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                       std::uint8_t alpha = 255);

}  // namespace kestrune::testing
