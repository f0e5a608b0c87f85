#pragma once

#include <functional>
#include <list>

#include "adapters/bus/NameOwner.h"

namespace kestrune {

/// What the host that shows the item and its menu needs, and most hosts do not.
struct HostForm {
  bool submenus = false;  ///< its menu does not scroll: the long parts of ours are submenus
  /// It shows two underscores in a label as two, but takes away the first one that has something else behind
  /// it. Most show two as one, and take away each that stands alone.
  bool firstUnderscoreOnly = false;
  bool menuAtError = false;  ///< it opens the menu at the icon where Activate is answered with an error
  bool qtKeys = false;       ///< it reads the keys of a shortcut as Qt does (","); most do as GDK ("comma")
  bool iconFiles = false;    ///< it reads no pixmaps, but takes the path of a file for the name of an icon

  bool operator==(const HostForm&) const = default;
};

/// Follows which host there is, by the names on a bus, and the watcher to register with. Main thread.
class HostFinder {
 public:
  static constexpr auto watcherName = "org.kde.StatusNotifierWatcher";

  /// `onForm` runs when the form has changed. `onWatcher` runs when a watcher comes, and after each
  /// connection also when there is none; the form is known by then.
  HostFinder(std::function<void()> onForm, std::function<void()> onWatcher);

  void busConnected(sd_bus* bus);
  void busLost();

  /// That of most hosts until another one is known.
  const HostForm& form() const { return current; }

 private:
  void look();

  const std::function<void()> onForm;
  HostForm current;
  std::list<NameOwner> programs;  ///< those that tell the form, in the order of their table
  NameOwner watcher;
};

}  // namespace kestrune
