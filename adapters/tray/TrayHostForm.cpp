#include "adapters/tray/TrayHostForm.h"

#include <string>
#include <utility>

namespace kestrune {

namespace {

struct KnownHost {
  const char* program;  ///< bus name of the program
  bool isWatcher;       ///< the host counts only while its process is also the StatusNotifierWatcher
  TrayHostForm form;
};

// The first host in this list that runs decides the form.
const KnownHost knownHosts[] = {
    // GNOME's AppIndicator extension, which runs in the process of the shell.
    {"org.gnome.Shell", true, {.submenus = true, .firstUnderscoreOnly = true}},
    // KDE Plasma. Its watcher is another process (kded).
    {"org.kde.plasmashell", false, {.menuAtError = true, .qtKeys = true}},
    // LXQt. Its watcher is the panel, which has no other bus name. So look for the name of the session.
    {"org.lxqt.session", false, {.qtKeys = true}},
    // The service behind the indicator applets of MATE and XFCE.
    {"org.ayatana.indicator.application", false, {.iconFiles = true}},
};

}  // namespace

TrayHostFinder::TrayHostFinder(BusConnection& connection, std::function<void()> givenOnForm,
                               std::function<void()> onWatcher)
    : onForm(std::move(givenOnForm)) {
  for (const auto& host : knownHosts)
    programs.emplace_back(connection, host.program, [this](const auto&) { update(); });
  // Ask for the owner of the watcher's name last. `update` relies on this: once it is known, the owners of
  // all other names are known too.
  watcher.emplace(connection, watcherName, [this, onWatcher = std::move(onWatcher)](const auto& before) {
    update();
    if (before && !watcher->owner().empty()) onWatcher();
  });
}

void TrayHostFinder::update() {
  if (!watcher->isKnown()) return;
  TrayHostForm found;
  auto program = programs.begin();
  for (const auto& host : knownHosts) {
    const std::string owner = (program++)->owner();
    if (owner.empty() || (host.isWatcher && owner != watcher->owner())) continue;
    found = host.form;
    break;
  }
  if (std::exchange(current, found) != found) onForm();
}

}  // namespace kestrune
