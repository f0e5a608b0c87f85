#include "adapters/windows/DialogAlerts.h"

#include <utility>

#include "adapters/system/StandardError.h"

namespace kestrune {

DialogAlerts::DialogAlerts(EventLoop& givenLoop, Notifications& givenNotifications,
                           ActivationToken& givenToken, std::string givenProgram, bool givenHasDisplay,
                           Seconds givenPatience)
    : AlertQueue(givenLoop.mainQueue()),
      loop(givenLoop),
      notifications(givenNotifications),
      token(givenToken),
      program(std::move(givenProgram)),
      hasDisplay(givenHasDisplay),
      patience(givenPatience) {}

DialogAlerts::~DialogAlerts() = default;

void DialogAlerts::close() {
  forget();
  if (process) process->kill();
  forgetProcess();
}

void DialogAlerts::show(const Open& shown) {
  if (!hasDisplay) return giveUp("there is no display");
  if (!process) {
    process = std::make_unique<DialogProcess>(
        loop, [this](const dialogs::Event& event) { handle(event); },
        [this](const std::optional<std::string>& reason) {
          giveUp(reason.value_or("it ended without an answer"));
        });
    if (const auto problem = process->start(program)) return giveUp(*problem);
    if (const std::string given = token.take(); !given.empty()) process->send(dialogs::Raise{given});
  }
  process->send(dialogs::ShowAlert{shown.id, shown.alert});
  deadline = loop.after(patience, [this] {
    process->kill();
    giveUp("its window did not come");
  });
}

void DialogAlerts::raise() {
  if (process) process->send(dialogs::Raise{token.take()});
}

void DialogAlerts::handle(const dialogs::Event& event) {
  if (const auto* const shown = std::get_if<dialogs::Shown>(&event)) {
    if (shown->id == open.back().id) deadline.reset();
  } else if (const auto* const pressed = std::get_if<dialogs::Pressed>(&event)) {
    press(pressed->id, pressed->action);
  } else if (const auto* const answered = std::get_if<dialogs::Answered>(&event)) {
    if (answered->id == open.back().id) deadline.reset();
    answer(answered->id, answered->answer);
    if (open.empty()) forgetProcess();
  }
}

/// Shows all open alerts as notifications instead, the top one first, and answers them as cancelled.
void DialogAlerts::giveUp(const std::string& reason) {
  forgetProcess();
  while (!open.empty()) {
    fallBack(open.back(), reason);
    answer(open.back().id, {});
  }
}

/// Without the texts of fields: notifications are kept, and other programs can read them.
void DialogAlerts::fallBack(const Open& lost, const std::string& reason) {
  reportOnce("no window from " + program + ": " + reason);
  notifications.add({.identifier = "alert-" + std::to_string(lost.id),
                     .title = lost.alert.messageText,
                     .body = lost.alert.informativeText,
                     .lasting = true});
}

void DialogAlerts::forgetProcess() {
  deadline.reset();
  process.reset();
}

}  // namespace kestrune
