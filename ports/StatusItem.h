#pragma once

#include <optional>
#include <string>

#include "ports/Image.h"
#include "ports/Menu.h"

namespace kestrune {

enum class ImagePosition { noImage = 0, imageOnly = 1 };

struct StatusButton {
  std::string title{};
  ImageRef image{};
  ImagePosition imagePosition = ImagePosition::noImage;
  std::optional<std::string> toolTip{};
  std::optional<std::string> accessibilityLabel{};
};

/// The client's item in the status bar: a menu, and usually a button. Main thread.
class StatusItem {
 public:
  /// The `length` for `addToStatusBar` that makes an item as wide as the bar is high.
  static constexpr double squareLength = -2;

  virtual ~StatusItem() = default;

  /// Adds the item to the status bar, as soon as there is one. Called once, before any other function.
  virtual void addToStatusBar(double length) = 0;

  /// Returns whether the item has a button. If it has none, `setButton` must not be called; `setMenu` may.
  virtual bool hasButton() const = 0;
  virtual void setButton(const StatusButton& button) = 0;

  /// Replaces the menu. An open menu stays open and changes in place.
  virtual void setMenu(Menu menu) = 0;
};

}  // namespace kestrune
