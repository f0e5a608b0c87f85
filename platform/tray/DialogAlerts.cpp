#include "platform/tray/DialogAlerts.h"

#include <algorithm>
#include <utility>

#include "platform/posix/Diagnostics.h"

namespace kestrune {

DialogAlerts::DialogAlerts(EventLoop& givenLoop, Notifications& givenNotifications, std::string givenProgram,
                           bool givenHasDisplay, Seconds givenPatience)
    : loop(givenLoop),
      notifications(givenNotifications),
      program(std::move(givenProgram)),
      hasDisplay(givenHasDisplay),
      patience(givenPatience) {}

DialogAlerts::~DialogAlerts() = default;

void DialogAlerts::present(AlertRequest request) {
  if (isRaised(request.identifier)) return;
  auto& queue = performing ? stacking : waiting;
  queue.push_back(std::move(request));
  loop.mainQueue().async([this] { showNext(); });
}

/// Whether an alert of this identifier is there already; if it is open, it comes to the front.
bool DialogAlerts::isRaised(const std::string& identifier) {
  if (identifier.empty()) return false;
  for (const auto& each : open) {
    if (each.request.identifier != identifier) continue;
    process->send(dialogs::Raise{each.id});
    return true;
  }
  const auto isSame = [&identifier](const AlertRequest& each) { return each.identifier == identifier; };
  return std::any_of(waiting.begin(), waiting.end(), isSame) ||
         std::any_of(stacking.begin(), stacking.end(), isSame);
}

void DialogAlerts::close() {
  waiting.clear();
  stacking.clear();
  open.clear();
  if (process) process->kill();
  process.reset();
}

void DialogAlerts::showNext() {
  auto& queue = stacking.empty() ? waiting : stacking;
  if (queue.empty() || (&queue == &waiting && !open.empty())) return;
  AlertRequest next = std::move(queue.front());
  queue.pop_front();
  show(std::move(next));
}

void DialogAlerts::show(AlertRequest request) {
  Alert alert = request.describe();
  std::optional<std::string> problem;
  if (!hasDisplay) {
    problem = "there is no display";
  } else if (!process) {
    process = std::make_unique<DialogProcess>(
        loop, [this](const dialogs::Event& event) { handle(event); },
        [this](const std::optional<std::string>& reason) {
          giveUp(reason.value_or("it ended without an answer"));
        });
    problem = process->start(program);
    if (problem) process.reset();
  }
  if (problem) {
    fallBack(alert, *problem);
    request.completion({});
    loop.mainQueue().async([this] { showNext(); });
    return;
  }
  const int id = ++lastId;
  process->send(dialogs::ShowAlert{id, alert});
  open.push_back({id, std::move(request), std::move(alert), loop.after(patience, [this] {
                    process->kill();
                    giveUp("its window did not come");
                  })});
}

void DialogAlerts::handle(const dialogs::Event& event) {
  const auto opened = [this](int id) {
    return std::find_if(open.begin(), open.end(), [id](const Open& each) { return each.id == id; });
  };
  if (const auto* const shown = std::get_if<dialogs::Shown>(&event)) {
    if (const auto found = opened(shown->id); found != open.end()) found->deadline.reset();
  } else if (const auto* const pressed = std::get_if<dialogs::Pressed>(&event)) {
    const auto found = opened(pressed->id);
    const auto target = found != open.end() ? found->alert.target.lock() : nullptr;
    if (!target) return;
    performing = true;
    target->performAction(pressed->action);
    performing = false;
  } else if (const auto* const answered = std::get_if<dialogs::Answered>(&event)) {
    const auto found = opened(answered->id);
    if (found == open.end()) return;
    const auto completion = std::move(found->request.completion);
    AlertAnswer answer = answered->answer;
    // Buttons that the alert does not have are no answer.
    if (answer.button && *answer.button >= found->alert.buttons.size()) answer.button.reset();
    open.erase(found);
    if (open.empty()) process.reset();
    completion(answer);
    loop.mainQueue().async([this] { showNext(); });
  }
}

/// The program is of no more use: what it showed is told otherwise, from the top down.
void DialogAlerts::giveUp(const std::string& reason) {
  process.reset();
  auto lost = std::exchange(open, {});
  for (auto each = lost.rbegin(); each != lost.rend(); ++each) {
    fallBack(each->alert, reason);
    each->request.completion({});
  }
  loop.mainQueue().async([this] { showNext(); });
}

/// The texts of fields stay out of it: a notification may be kept, and read by others.
void DialogAlerts::fallBack(const Alert& alert, const std::string& reason) {
  reportOnce("no window from " + program + ": " + reason);
  notifications.add({.identifier = "alert-" + std::to_string(++lastId),
                     .title = alert.messageText,
                     .body = alert.informativeText});
}

}  // namespace kestrune
