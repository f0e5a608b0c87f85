#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ports/Image.h"
#include "ports/Menu.h"

namespace kestrune {

enum class ImagePosition { noImage = 0, imageOnly = 1 };

/// The look of a status item's button.
struct StatusButton {
  std::string title{};
  ImageRef image{};  ///< null: no image
  ImagePosition imagePosition = ImagePosition::noImage;
  std::optional<std::string> toolTip{};
  std::optional<std::string> accessibilityLabel{};

  bool operator==(const StatusButton&) const = default;
};

/// One item of the status bar: a button with a menu. Main thread.
class StatusItem {
 public:
  virtual ~StatusItem() = default;

  /// Returns whether the item has a button to draw. An item without a button still has its menu.
  virtual bool hasButton() const = 0;
  virtual void setButton(const StatusButton& button) = 0;

  /// Replaces the menu. An open menu stays open and changes in place.
  virtual void setMenu(Menu menu) = 0;
};

/// The `length` for `StatusBar::statusItem` that makes an item as wide as the bar is high.
inline constexpr double squareStatusItemLength = -2;

/// The desktop's status bar. Each face (tray or terminal) implements `StatusBar` and `Alerts`. Main thread.
class StatusBar {
 public:
  virtual ~StatusBar() = default;

  /// Returns a new item, never null. If there is no status bar yet, the item appears as soon as there is one.
  virtual std::unique_ptr<StatusItem> statusItem(double length) = 0;
};

}  // namespace kestrune
