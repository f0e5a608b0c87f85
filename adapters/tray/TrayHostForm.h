#pragma once

#include <functional>
#include <list>
#include <optional>

#include "adapters/bus/NameOwner.h"

namespace kestrune {

/// The bus name and the object path of the watcher, the program with the list of all tray items. Tray hosts
/// show the items in the watcher's list. `watcherName` is also the name of its D-Bus interface.
inline constexpr auto watcherName = "org.kde.StatusNotifierWatcher";
inline constexpr auto watcherPath = "/StatusNotifierWatcher";

/// How the present tray host (the program that shows tray icons) differs from most hosts.
struct TrayHostForm {
  bool submenus = false;  ///< some rows must be moved into submenus, because the host's menu does not scroll
  /// The host hides at most one underscore of a label: the first one that is followed by a character other
  /// than an underscore. It shows "a_b_c__d" as "ab_c__d". Most hosts show "abc_d": they hide every single
  /// underscore, and show a double underscore as one underscore.
  bool firstUnderscoreOnly = false;
  bool busyWithToken = false;  ///< the host shows a busy pointer until a window uses its activation token
  bool menuAtError = false;    ///< if Activate returns an error, the host opens the menu at the icon
  bool qtKeys = false;         ///< shortcuts need Qt's names of keys (","), not those of GDK ("comma")
  bool iconFiles = false;      ///< the host ignores pixmaps, but accepts the path of a file as an icon name

  bool operator==(const TrayHostForm&) const = default;
};

/// Finds out by bus names which known tray host runs, and when a watcher appears. Main thread.
class TrayHostFinder {
 public:
  /// `onForm` runs when the form has changed. `onWatcher` runs when a watcher has appeared after the
  /// connection was opened.
  TrayHostFinder(BusConnection& connection, std::function<void()> onForm, std::function<void()> onWatcher);

  /// Returns the form of the running host, or the default form while no known host is found.
  const TrayHostForm& form() const { return current; }

 private:
  void update();

  const std::function<void()> onForm;
  TrayHostForm current;
  std::list<NameOwner> programs;  ///< the owner of each known host's bus name, in the order of `knownHosts`
  std::optional<NameOwner> watcher;
};

}  // namespace kestrune
