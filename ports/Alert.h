#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ports/Menu.h"
#include "ports/View.h"

namespace kestrune {

enum class AlertStyle { warning = 0, informational = 1 };

/// The description of a window with a message and buttons.
struct Alert {
  AlertStyle style = AlertStyle::warning;
  std::string messageText;
  std::string informativeText;
  std::vector<std::string> buttons;  ///< at least one; the first is what Return presses
  std::optional<View> accessoryView{};
  std::weak_ptr<ActionTarget> target{};  ///< of the buttons inside the view

  /// Compares all members except `target`.
  friend bool operator==(const Alert& a, const Alert& b) {
    return a.style == b.style && a.messageText == b.messageText && a.informativeText == b.informativeText &&
           a.buttons == b.buttons && a.accessoryView == b.accessoryView;
  }
};

struct AlertAnswer {
  std::optional<std::size_t>
      button;  ///< counted from 0; absent when the user cancelled or no window could be shown
  std::map<std::string, std::string> fields{};  ///< the texts of the view's fields, by their identifiers
};

struct AlertRequest {
  /// Called when the alert's turn has come, so that its text is up to date.
  std::function<Alert()> describe;
  /// Called once, when the alert is answered or cancelled.
  std::function<void(const AlertAnswer&)> completion;
  /// At most one alert with this identifier is open or waiting; empty: any number.
  std::string identifier{};
};

/// Shows alerts one at a time, in the order of the requests. An alert that a button inside an open alert
/// requests is shown on top of it. A face implements this and `StatusBar`. Main thread.
class Alerts {
 public:
  virtual ~Alerts() = default;

  /// Requests an alert and returns before it calls any function of `request`. If an alert with the same
  /// identifier is not answered yet, raises that one instead and drops `request`.
  virtual void present(AlertRequest request) = 0;
};

}  // namespace kestrune
