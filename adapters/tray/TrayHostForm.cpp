#include "adapters/tray/TrayHostForm.h"

#include <string>
#include <utility>

namespace kestrune {

namespace {

struct KnownHost {
  const char* program;  ///< its bus name
  bool isWatcher;       ///< counts only while the same process is the StatusNotifierWatcher
  TrayHostForm form;
};

// The first one that runs counts.
const KnownHost knownHosts[] = {
    // The AppIndicator extension, which runs in the shell's process.
    {"org.gnome.Shell", true, {.submenus = true, .firstUnderscoreOnly = true}},
    // The watcher is another process (kded).
    {"org.kde.plasmashell", false, {.menuAtError = true, .qtKeys = true}},
    // The watcher is its panel, which has no name of its own.
    {"org.lxqt.session", false, {.qtKeys = true}},
    // The service behind the indicator applets of MATE and XFCE.
    {"org.ayatana.indicator.application", false, {.iconFiles = true}},
};

}  // namespace

TrayHostFinder::TrayHostFinder(std::function<void()> givenOnForm, std::function<void()> onWatcher)
    : onForm(std::move(givenOnForm)),
      watcher(watcherName, [this, onWatcher = std::move(onWatcher)](const std::string& before) {
        update();
        if (!watcher.owner().empty() || before.empty()) onWatcher();
      }) {
  for (const auto& host : knownHosts) {
    programs.emplace_back(host.program, [this](const std::string&) { update(); });
  }
}

void TrayHostFinder::busConnected(sd_bus* bus) {
  for (auto& program : programs) program.busConnected(bus);
  // Last: when its owner is known, so are the others.
  watcher.busConnected(bus);
}

void TrayHostFinder::busLost() {
  for (auto& program : programs) program.busLost();
  watcher.busLost();
}

void TrayHostFinder::update() {
  if (!watcher.isKnown()) return;
  TrayHostForm found;
  auto program = programs.begin();
  for (const auto& host : knownHosts) {
    const std::string& owner = (program++)->owner();
    if (owner.empty() || (host.isWatcher && owner != watcher.owner())) continue;
    found = host.form;
    break;
  }
  if (std::exchange(current, found) != found) onForm();
}

}  // namespace kestrune
