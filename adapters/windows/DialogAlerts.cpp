#include "adapters/windows/DialogAlerts.h"

namespace kestrune {

DialogAlerts::DialogAlerts(EventLoop& givenLoop, DialogProgram& givenProgram, ActivationToken& givenToken)
    : AlertQueue(givenLoop.mainQueue()), loop(givenLoop), program(givenProgram), token(givenToken) {}

DialogAlerts::~DialogAlerts() = default;

void DialogAlerts::close() {
  forget();
  if (process) process->kill();
  process.reset();
}

void DialogAlerts::show(const Open& shown) {
  if (!process) {
    process = std::make_unique<DialogProcess>(
        loop, program, [this](const dialogs::Event& event) { handle(event); },
        [this](bool failed) {
          if (!failed) program.report("it ended without an answer");
          giveUp();
        });
    if (!process->start(token.take())) return giveUp();
  }
  process->show(dialogs::ShowAlert{shown.id, shown.alert}, shown.id);
}

void DialogAlerts::raise() {
  if (process) process->send(dialogs::Raise{token.take()});
}

void DialogAlerts::handle(const dialogs::Event& event) {
  if (const auto* const pressed = std::get_if<dialogs::Pressed>(&event)) {
    press(pressed->id, pressed->action);
  } else if (const auto* const answered = std::get_if<dialogs::Answered>(&event)) {
    answer(answered->id, answered->answer);
    if (open.empty()) process.reset();
  }
}

/// Shows all open alerts as notifications, not windows, the top alert first, and answers them as cancelled.
void DialogAlerts::giveUp() {
  process.reset();
  while (!open.empty()) {
    const Open& lost = open.back();
    // Leave out the texts of fields: desktops keep notifications, and other programs can read them.
    program.notifications.add({.identifier = "alert-" + std::to_string(lost.id),
                               .title = lost.alert.messageText,
                               .body = lost.alert.informativeText,
                               .lasting = true});
    answer(lost.id, {});
  }
}

}  // namespace kestrune
