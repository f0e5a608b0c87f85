#include "adapters/windows/DialogWindows.h"

#include <algorithm>

namespace kestrune {

void DialogWindows::show(const Open& shown) {
  if (!alertProcess) {
    alertProcess = std::make_unique<DialogProcess>(
        program, [this](const dialogs::Event& event) { alertEvent(event); }, [this] { giveUp(); });
  }
  alertProcess->show(dialogs::ShowAlert{shown.id, shown.alert}, shown.id);
}

void DialogWindows::alertEvent(const dialogs::Event& event) {
  if (const auto* const pressed = std::get_if<dialogs::Pressed>(&event)) {
    press(pressed->id, pressed->action);
  } else if (const auto* const answered = std::get_if<dialogs::Answered>(&event)) {
    const bool wasBottom = !open.empty() && open.front().id == answered->id;
    answer(answered->id, answered->answer);
    if (!wasBottom) return;
    // The program ends when its bottom alert is answered. It has not read the requests for the alerts that
    // are still in `open`, so show them in a new process. If that fails, `show` empties `open`.
    alertProcess.reset();
    for (std::size_t each = 0; each < open.size(); ++each) show(open[each]);
  }
}

/// Called when the process of the alerts cannot be started or has ended. Begins with the top alert.
void DialogWindows::giveUp() {
  alertProcess.reset();
  while (!open.empty()) {
    const Open& lost = open.back();
    // Leave out the accessory view. Its fields may contain secrets, and other programs can read the
    // notifications that a desktop keeps.
    program.notifications.add({.identifier = "alert-" + std::to_string(lost.id),
                               .title = lost.alert.messageText,
                               .body = lost.alert.informativeText,
                               .lasting = true});
    answer(lost.id, {});
  }
}

void DialogWindows::showMenu() {
  if (menuProcess) return menuProcess->raise();
  const auto onEvent = [this](const dialogs::Event& event) {
    const auto* const chosen = std::get_if<dialogs::Chosen>(&event);
    if (chosen == nullptr) return;
    menuProcess.reset();
    const auto item = std::ranges::find(menu.items, chosen->item, &MenuItem::id);
    if (item != menu.items.end()) performMenuItem(MenuItem(*item));
  };
  // `onEnd` runs if there is no event `Chosen`, for example because the user has closed the menu.
  const auto onEnd = [this] { menuProcess.reset(); };
  menuProcess = std::make_unique<DialogProcess>(program, onEvent, onEnd);
  menuProcess->show(dialogs::ShowMenu{menu}, 0);
}

}  // namespace kestrune
