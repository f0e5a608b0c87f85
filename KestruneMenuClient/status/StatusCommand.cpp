#include "KestruneMenuClient/status/StatusCommand.h"

#include <utility>

namespace kestrune {

namespace {

/// The interval at which a client asks the backend.
constexpr Seconds checkInterval{20.0};
/// How long to wait for another client after one has ended. A restart takes less.
constexpr Seconds successorPatience{1.0};

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
      ownCheck(std::make_shared<StatusCheck>(givenPlatform)) {}

void StatusCommand::applicationDidFinishLaunching() {
  look();
}

void StatusCommand::applicationWillTerminate() {
  ownCheck->abandon();
}

void StatusCommand::look() {
  next.reset();
  const auto weak = weak_from_this();
  subscription = platform.statusFeed.subscribe(
      [weak](const std::string& line) {
        if (const auto self = weak.lock()) self->heard(line);
      },
      [weak] {
        if (const auto self = weak.lock()) self->clientIsAbsent();
      });
}

void StatusCommand::heard(const std::string& line) {
  next.reset();
  if (const auto snapshot = parseStatusJson(line)) {
    hasHeard = true;
    show(*snapshot, true);
  } else {
    subscription.reset();
    check();
  }
}

void StatusCommand::clientIsAbsent() {
  if (std::exchange(hasHeard, false)) {
    after(successorPatience, &StatusCommand::check);
  } else {
    check();
  }
}

void StatusCommand::check() {
  next.reset();
  if (std::exchange(isChecking, true)) return;
  ownCheck->run([weak = weak_from_this()](const StatusSnapshot& snapshot) {
    const auto self = weak.lock();
    if (!self) return;
    self->isChecking = false;
    // A client has started meanwhile; its status is newer.
    if (self->hasHeard) return;
    self->show(snapshot, false);
    if (self->options.follow) self->after(checkInterval, &StatusCommand::look);
  });
}

void StatusCommand::after(Seconds delay, void (StatusCommand::*then)()) {
  next = platform.timers.scheduleRepeating(delay, [weak = weak_from_this(), then] {
    if (const auto self = weak.lock()) (*self.*then)();
  });
}

void StatusCommand::show(const StatusSnapshot& snapshot, bool fromClient) {
  code = options.exitZero ? 0 : statusExitCode(snapshot.lamp);
  const std::string text = formatted(snapshot, options.format, fromClient);
  if (text == shown) return;
  const bool apart = options.format == StatusFormat::text && !shown.empty();
  shown = text;
  const bool printed = print(apart ? "\n" + text : text);
  if (!printed) code = 1;
  if (printed && options.follow) return;
  // Ignore later lines of the client: one status was requested.
  subscription.reset();
  platform.application->terminate();
}

}  // namespace kestrune
