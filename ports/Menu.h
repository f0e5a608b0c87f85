#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune {

/// Receives what the user chooses in a menu.
class ActionTarget {
 public:
  virtual ~ActionTarget() = default;

  /// `action` is the name that the chosen item carries; a name that is not known is ignored. Main thread.
  virtual void performAction(std::string_view action) = 0;
};

/// One row of a menu.
struct MenuItem {
  int id = 0;  ///< the row's permanent identity, unique in its menu and greater than 0
  bool isSeparator = false;
  std::string title{};
  std::string action{};  ///< empty: the row does nothing
  std::string
      keyEquivalent{};  ///< pressed with the Command key; an upper-case letter adds Shift; empty: none
  std::optional<bool> checked{};  ///< absent: the row carries no check mark and has no room for one
  bool enabled = true;
  std::weak_ptr<ActionTarget> target{};

  /// Whether both look and act alike; whom they act on does not count.
  friend bool operator==(const MenuItem& a, const MenuItem& b) {
    return a.id == b.id && a.isSeparator == b.isSeparator && a.title == b.title && a.action == b.action &&
           a.keyEquivalent == b.keyEquivalent && a.checked == b.checked && a.enabled == b.enabled;
  }
};

/// A whole menu, described. It is built anew for every change; a face works out what changed.
struct Menu {
  std::vector<MenuItem> items;

  bool operator==(const Menu&) const = default;
};

/// Performs the action of `item`, if it has one, is enabled and its target still lives. Main thread.
inline void performMenuItem(const MenuItem& item) {
  if (item.action.empty() || !item.enabled) return;
  if (const auto target = item.target.lock()) target->performAction(std::string(item.action));
}

}  // namespace kestrune
