#include "adapters/tray/HostForm.h"

#include <string>
#include <utility>

namespace kestrune {

namespace {

/// A host, told by the name of its program.
struct KnownHost {
  const char* program;
  bool hasTheWatcher;  ///< only where this program is the watcher, too
  HostForm form;
};

// The first that is there counts.
const KnownHost knownHosts[] = {
    // The AppIndicator extension, which runs in the shell's process.
    {"org.gnome.Shell", true, {.submenus = true, .firstUnderscoreOnly = true}},
    // Its watcher runs in a process of its own (kded).
    {"org.kde.plasmashell", false, {.menuAtError = true, .qtKeys = true}},
    // Its panel is the watcher, but has no name of its own.
    {"org.lxqt.session", false, {.qtKeys = true}},
    // The service behind the indicator applets of MATE and XFCE.
    {"org.ayatana.indicator.application", false, {.iconFiles = true}},
};

}  // namespace

HostFinder::HostFinder(std::function<void()> givenOnForm, std::function<void()> onWatcher)
    : onForm(std::move(givenOnForm)),
      watcher(watcherName, [this, onWatcher = std::move(onWatcher)](const std::string& before) {
        look();
        if (!watcher.owner().empty() || before.empty()) onWatcher();
      }) {
  for (const auto& host : knownHosts) {
    programs.emplace_back(host.program, [this](const std::string&) { look(); });
  }
}

void HostFinder::busConnected(sd_bus* bus) {
  for (auto& program : programs) program.busConnected(bus);
  // The last, so that everything else is known when this is.
  watcher.busConnected(bus);
}

void HostFinder::busLost() {
  for (auto& program : programs) program.busLost();
  watcher.busLost();
}

void HostFinder::look() {
  if (!watcher.isKnown()) return;
  HostForm found;
  auto program = programs.begin();
  for (const auto& host : knownHosts) {
    const std::string& owner = (program++)->owner();
    if (owner.empty() || (host.hasTheWatcher && owner != watcher.owner())) continue;
    found = host.form;
    break;
  }
  if (found == current) return;
  current = found;
  onForm();
}

}  // namespace kestrune
