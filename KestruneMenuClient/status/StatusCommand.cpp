#include "KestruneMenuClient/status/StatusCommand.h"

#include <utility>

namespace kestrune {

namespace {

/// As often as a client asks.
constexpr Seconds checkInterval{20.0};
/// A client that restarts is away for as long as it takes to stop the backend.
constexpr Seconds successorInterval{1.0};
constexpr int successorLooks = 12;

std::string formatted(const StatusSnapshot& snapshot, StatusFormat format, bool fromClient) {
  switch (format) {
    case StatusFormat::json:
      return statusJson(snapshot, fromClient) + "\n";
    case StatusFormat::waybar:
      return statusForWaybar(snapshot, fromClient) + "\n";
    case StatusFormat::text:
      break;
  }
  return statusText(snapshot, fromClient);
}

}  // namespace

StatusCommand::StatusCommand(Platform& givenPlatform, Options givenOptions,
                             std::function<bool(const std::string&)> givenPrint)
    : platform(givenPlatform),
      options(givenOptions),
      print(std::move(givenPrint)),
      controller(std::make_shared<AppDelegate>(givenPlatform)) {}

void StatusCommand::applicationDidFinishLaunching() {
  look();
}

void StatusCommand::applicationWillTerminate() {
  controller->abandonCheck();
}

void StatusCommand::look() {
  if (!subscribe()) check();
}

bool StatusCommand::subscribe() {
  nextLook.reset();
  const auto weak = weak_from_this();
  subscription = platform.statusFeed.subscribe(
      [weak](const std::string& line) {
        if (const auto self = weak.lock()) self->heard(line);
      },
      [weak] {
        if (const auto self = weak.lock()) self->ended();
      });
  return subscription != nullptr;
}

void StatusCommand::lookForSuccessor(int looks) {
  if (subscribe()) return;
  if (looks == 0) return check();
  after(successorInterval, [this, looks] { lookForSuccessor(looks - 1); });
}

void StatusCommand::after(Seconds delay, std::function<void()> then) {
  nextLook = platform.timers.scheduleRepeating(delay, [weak = weak_from_this(), then = std::move(then)] {
    if (const auto self = weak.lock()) then();
  });
}

void StatusCommand::heard(const std::string& line) {
  if (const auto snapshot = parseStatusJson(line)) {
    hasHeard = true;
    show(*snapshot, true);
  } else {
    subscription.reset();
    check();
  }
}

void StatusCommand::ended() {
  subscription.reset();
  if (std::exchange(hasHeard, false)) {
    lookForSuccessor(successorLooks);
  } else {
    check();
  }
}

void StatusCommand::check() {
  controller->checkStatus([weak = weak_from_this()](const StatusSnapshot& snapshot) {
    const auto self = weak.lock();
    if (!self) return;
    self->show(snapshot, false);
    if (self->options.follow) self->after(checkInterval, [self = self.get()] { self->look(); });
  });
}

void StatusCommand::show(const StatusSnapshot& snapshot, bool fromClient) {
  code = statusExitCode(snapshot.lamp);
  const std::string text = formatted(snapshot, options.format, fromClient);
  if (text == shown) return;
  const bool apart = options.format == StatusFormat::text && !shown.empty();
  shown = text;
  const bool printed = print(apart ? "\n" + text : text);
  if (!printed) code = 1;
  if (printed && options.follow) return;
  // The client may have said more by now than it was asked for.
  subscription.reset();
  platform.application->terminate();
}

}  // namespace kestrune
