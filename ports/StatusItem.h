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
  std::string title;
  ImageRef image;  ///< null: no image
  ImagePosition imagePosition = ImagePosition::noImage;
  std::optional<std::string> toolTip;
  std::optional<std::string> accessibilityLabel;

  bool operator==(const StatusButton&) const = default;
};

/// One item of the status bar: a button with a menu. Main thread.
class StatusItem {
 public:
  virtual ~StatusItem() = default;

  /// Whether there is a button to draw; an item without one still has its menu.
  virtual bool hasButton() const = 0;
  virtual void setButton(const StatusButton& button) = 0;

  /// Replaces the menu. An open menu stays open and changes in place.
  virtual void setMenu(Menu menu) = 0;
};

/// Makes an item as wide as the bar is high.
inline constexpr double squareStatusItemLength = -2;

/// The desktop's status bar. Each face (tray, terminal) implements this and `Alerts`. Main thread.
class StatusBar {
 public:
  virtual ~StatusBar() = default;

  /// Never null. Without a status bar, the item appears when there is one.
  virtual std::unique_ptr<StatusItem> statusItem(double length) = 0;
};

}  // namespace kestrune
