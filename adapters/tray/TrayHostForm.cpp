#include "adapters/tray/TrayHostForm.h"

#include <string>
#include <utility>

namespace kestrune {

// If several of these hosts run, `TrayHostFinder::form` returns the form of the first one in this list.
const struct {
  const char* program;  ///< bus name of the program
  bool isWatcher;       ///< true: the program shows icons only while it is also the StatusNotifierWatcher
  TrayHostForm form;
} knownHosts[] = {
    // GNOME Flashback. It also owns the bus name of GNOME Shell, so it must come first. Its panel shows GTK
    // menus.
    {"org.gnome.Flashback", false, {}},
    // GNOME Shell. It shows icons only with the AppIndicator extension, which makes the shell the watcher.
    {"org.gnome.Shell", true, {.submenus = true, .firstUnderscoreOnly = true, .busyWithToken = true}},
    // KDE Plasma. Its watcher is another process (kded).
    {"org.kde.plasmashell", false, {.menuAtError = true, .qtKeys = true}},
    // LXQt. Its panel owns only the watcher's bus name, which does not tell LXQt from other desktops. So look
    // for the bus name of LXQt's session manager.
    {"org.lxqt.session", false, {.qtKeys = true}},
    // The notification area of MATE's panel, which shows pixmaps. It must come before the next service, which
    // may run too.
    {"org.mate.panel.applet.NotificationAreaAppletFactory", true, {}},
    // The service behind the indicator applets of MATE and XFCE.
    {"org.ayatana.indicator.application", false, {.iconFiles = true}},
};

TrayHostFinder::TrayHostFinder(BusConnection& connection, std::function<void()> givenOnForm,
                               std::function<void()> onWatcher)
    : onForm(std::move(givenOnForm)) {
  for (const auto& host : knownHosts)
    programs.emplace_back(connection, host.program, [this](const auto&) { update(); });
  // Ask for the owner of the watcher's name last. The bus daemon answers in order. So when `update` knows the
  // owner of the watcher's name, the owners of all other names are known too.
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
