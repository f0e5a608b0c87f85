#include "adapters/windows/MenuWindowProcess.h"

#include <algorithm>
#include <utility>

#include "adapters/system/StandardError.h"

namespace kestrune {

MenuWindowProcess::MenuWindowProcess(EventLoop& givenLoop, std::string givenProgram, bool givenHasDisplay,
                                     Seconds givenPatience)
    : loop(givenLoop),
      program(std::move(givenProgram)),
      hasDisplay(givenHasDisplay),
      patience(givenPatience) {}

MenuWindowProcess::~MenuWindowProcess() = default;

void MenuWindowProcess::setMenu(const Menu& changed) {
  if (menu == changed) return;
  menu = changed;
  if (process) process->send(dialogs::ShowMenu{menu});
}

void MenuWindowProcess::show(const std::string& activationToken) {
  if (process) return process->send(dialogs::Raise{activationToken});
  if (!hasDisplay) return report("there is no display");
  process = std::make_unique<DialogProcess>(
      loop, [this](const dialogs::Event& event) { handle(event); },
      [this](const std::optional<std::string>& problem) { ended(problem); });
  if (const auto problem = process->start(program)) {
    process.reset();
    return report(*problem);
  }
  if (!activationToken.empty()) process->send(dialogs::Raise{activationToken});
  process->send(dialogs::ShowMenu{menu});
  deadline = loop.after(patience, [this] {
    process->kill();
    ended("its window did not come");
  });
}

void MenuWindowProcess::close() {
  if (process) process->kill();
  forgetProcess();
}

void MenuWindowProcess::handle(const dialogs::Event& event) {
  if (std::holds_alternative<dialogs::Shown>(event)) {
    deadline.reset();
  } else if (const auto* const chosen = std::get_if<dialogs::Chosen>(&event)) {
    forgetProcess();
    const auto item = std::find_if(menu.items.begin(), menu.items.end(),
                                   [chosen](const MenuItem& each) { return each.id == chosen->item; });
    if (item != menu.items.end()) performMenuItem(MenuItem(*item));
  }
}

/// Reports why there is no window, unless the user closed it without a choice.
void MenuWindowProcess::ended(const std::optional<std::string>& problem) {
  if (problem || deadline) report(problem.value_or("it ended before its window came"));
  forgetProcess();
}

void MenuWindowProcess::report(const std::string& problem) const {
  reportOnce("no menu window from " + program + ": " + problem);
}

void MenuWindowProcess::forgetProcess() {
  deadline.reset();
  process.reset();
}

}  // namespace kestrune
