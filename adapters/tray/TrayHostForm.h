#pragma once

#include <functional>
#include <list>

#include "adapters/bus/NameOwner.h"

namespace kestrune {

/// How the tray host at hand differs from most hosts.
struct TrayHostForm {
  bool submenus = false;  ///< its menu does not scroll: the long parts of ours become submenus
  /// In a label it removes the first underscore that another character follows, and keeps double underscores.
  /// Most hosts show a double underscore as one, and remove each single one.
  bool firstUnderscoreOnly = false;
  bool menuAtError = false;  ///< if Activate returns an error, it opens the menu at the icon
  bool qtKeys = false;  ///< it reads the keys of a shortcut as Qt does (","); most read GDK names ("comma")
  bool iconFiles = false;  ///< it ignores pixmaps, but accepts the path of a file as the name of an icon

  bool operator==(const TrayHostForm&) const = default;
};

/// Finds out by bus names which tray host runs, and whether there is a StatusNotifierWatcher. Main thread.
class TrayHostFinder {
 public:
  static constexpr auto watcherName = "org.kde.StatusNotifierWatcher";

  /// `onForm` runs when the form has changed. `onWatcher` runs when a watcher appears, and once for each
  /// connection even without one; the form is known by then.
  TrayHostFinder(std::function<void()> onForm, std::function<void()> onWatcher);

  void busConnected(sd_bus* bus);
  void busLost();

  /// The form of most hosts, until another host is found.
  const TrayHostForm& form() const { return current; }

 private:
  void update();

  const std::function<void()> onForm;
  TrayHostForm current;
  std::list<NameOwner> programs;  ///< one for each known host, in the same order
  NameOwner watcher;
};

}  // namespace kestrune
