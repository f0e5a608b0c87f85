#include "adapters/alerts/AlertQueue.h"

#include <algorithm>
#include <utility>

namespace kestrune {

void AlertQueue::present(AlertRequest request) {
  const auto isSame = [&identifier = request.identifier](const AlertRequest& each) {
    return !identifier.empty() && each.identifier == identifier;
  };
  const bool isNew = std::ranges::none_of(waiting, isSame) && std::ranges::none_of(stacking, isSame) &&
                     std::ranges::none_of(open, isSame, &Open::request);
  const bool comesOnTop = isNew && performing;
  // The windows of the open alerts may be minimised or on another workspace.
  if (!comesOnTop && !open.empty()) raise();
  if (isNew) (performing ? stacking : waiting).push_back(std::move(request));
  queue.async([this] { showNext(); });
}

void AlertQueue::showNext() {
  auto& next = stacking.empty() ? waiting : stacking;
  if (next.empty() || (stacking.empty() && !open.empty())) return;
  AlertRequest request = std::move(next.front());
  next.pop_front();
  Alert alert = request.describe();
  open.push_back({++lastId, std::move(request), std::move(alert)});
  show(open.back());
}

void AlertQueue::press(int id, const std::string& action) {
  const auto pressed = std::ranges::find(open, id, &Open::id);
  const auto target = pressed != open.end() ? pressed->alert.target.lock() : nullptr;
  if (target) {
    performing = true;
    target->performAction(action);
    performing = false;
  }
  goOn();
}

void AlertQueue::answer(int id, AlertAnswer answer) {
  const auto ended = std::ranges::find(open, id, &Open::id);
  if (ended == open.end()) return;
  if (answer.button && *answer.button >= ended->alert.buttons.size()) answer.button.reset();
  const auto completion = std::move(ended->request.completion);
  open.erase(ended);
  completion(answer);
  goOn();
}

/// Called after a button's action or an alert's completion. Queues a job that shows the next alert. If no
/// alert has been shown since this call of `goOn`, the job then calls `resume`.
void AlertQueue::goOn() {
  queue.async([this, before = lastId] {
    showNext();
    if (lastId == before) resume();
  });
}

}  // namespace kestrune
