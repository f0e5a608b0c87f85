#include "adapters/windows/MenuWindowProcess.h"

#include <algorithm>

namespace kestrune {

MenuWindowProcess::MenuWindowProcess(EventLoop& givenLoop, DialogProgram& givenProgram)
    : loop(givenLoop), program(givenProgram) {}

MenuWindowProcess::~MenuWindowProcess() = default;

void MenuWindowProcess::setMenu(const Menu& changed) {
  if (menu == changed) return;
  menu = changed;
  if (process) process->send(dialogs::ShowMenu{menu});
}

void MenuWindowProcess::show(const std::string& activationToken) {
  if (process) return process->send(dialogs::Raise{activationToken});
  // The second handler: if the user closes the window without a choice, the process ends without an event.
  process = std::make_unique<DialogProcess>(
      loop, program, [this](const dialogs::Event& event) { handle(event); },
      [this](bool) { process.reset(); });
  if (!process->start(activationToken)) return process.reset();
  process->show(dialogs::ShowMenu{menu}, 0);
}

void MenuWindowProcess::close() {
  if (process) process->kill();
  process.reset();
}

void MenuWindowProcess::handle(const dialogs::Event& event) {
  const auto* const chosen = std::get_if<dialogs::Chosen>(&event);
  if (chosen == nullptr) return;
  process.reset();
  const auto item = std::find_if(menu.items.begin(), menu.items.end(),
                                 [chosen](const MenuItem& each) { return each.id == chosen->item; });
  if (item != menu.items.end()) performMenuItem(MenuItem(*item));
}

}  // namespace kestrune
