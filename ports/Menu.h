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

  /// `action` is the `MenuItem::action` of the chosen item; an unknown one is ignored. Main thread.
  virtual void performAction(std::string_view action) = 0;
};

/// One row of a menu.
struct MenuItem {
  int id = 0;  ///< permanent, unique in its menu, greater than 0
  bool isSeparator = false;
  std::string title{};
  std::string action{};  ///< empty: the row does nothing
  std::string
      keyEquivalent{};  ///< pressed with the Command key; an upper-case letter adds Shift; empty: none
  std::optional<bool> checked{};  ///< absent: the row has no check mark, and no space for one
  bool enabled = true;
  std::weak_ptr<ActionTarget> target{};

  /// Compares all members except `target`.
  friend bool operator==(const MenuItem& a, const MenuItem& b) {
    return a.id == b.id && a.isSeparator == b.isSeparator && a.title == b.title && a.action == b.action &&
           a.keyEquivalent == b.keyEquivalent && a.checked == b.checked && a.enabled == b.enabled;
  }
};

/// The description of a whole menu. Every change builds a new one; the face finds the differences.
struct Menu {
  std::vector<MenuItem> items;

  bool operator==(const Menu&) const = default;
};

/// Performs the action of `item` if it has one, is enabled, and its target still exists. Main thread.
inline void performMenuItem(const MenuItem& item) {
  if (item.action.empty() || !item.enabled) return;
  if (const auto target = item.target.lock()) target->performAction(std::string(item.action));
}

}  // namespace kestrune
