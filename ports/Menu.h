#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune {

/// Performs the actions of menu rows, and of buttons inside alerts, when the user chooses them.
class ActionTarget {
 public:
  virtual ~ActionTarget() = default;

  /// Performs `action`, a `MenuItem::action` or `View::action`. Ignores an unknown action. Main thread.
  virtual void performAction(std::string_view action) = 0;
};

struct MenuItem {
  int id = 0;  ///< greater than 0, unique in its menu; a row keeps its id when the menu is replaced
  bool isSeparator = false;
  std::string title{};
  std::string action{};           ///< name of the action that the row performs; empty: none
  std::string keyEquivalent{};    ///< shortcut key, pressed with Ctrl (upper case: Ctrl+Shift); empty: none
  std::optional<bool> checked{};  ///< absent: the row has no check mark
  bool enabled = true;
  std::weak_ptr<ActionTarget> target{};

  /// Compares all members except `target`.
  friend bool operator==(const MenuItem& a, const MenuItem& b) {
    return a.id == b.id && a.isSeparator == b.isSeparator && a.title == b.title && a.action == b.action &&
           a.keyEquivalent == b.keyEquivalent && a.checked == b.checked && a.enabled == b.enabled;
  }
};

/// A whole menu. Each change makes a new `Menu`, which the face (tray or terminal) compares with the old one.
struct Menu {
  std::vector<MenuItem> items;

  bool operator==(const Menu&) const = default;
};

/// Performs the action of `item`. Does nothing if the item has no action or is disabled, or if its target no
/// longer exists. Main thread.
inline void performMenuItem(const MenuItem& item) {
  if (item.action.empty() || !item.enabled) return;
  if (const auto target = item.target.lock()) target->performAction(std::string(item.action));
}

}  // namespace kestrune
