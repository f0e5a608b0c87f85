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

/// Describes a window with a message and buttons.
struct Alert {
  AlertStyle style = AlertStyle::warning;
  std::string messageText;
  std::string informativeText;
  std::vector<std::string> buttons;  ///< titles, at least one; the Return key presses the first button
  std::optional<View> accessoryView{};
  std::weak_ptr<ActionTarget> target{};  ///< performs the actions of the buttons in `accessoryView`

  /// Compares all members except `target`.
  friend bool operator==(const Alert& a, const Alert& b) {
    return a.style == b.style && a.messageText == b.messageText && a.informativeText == b.informativeText &&
           a.buttons == b.buttons && a.accessoryView == b.accessoryView;
  }
};

struct AlertAnswer {
  std::optional<std::size_t> button;  ///< index in `Alert::buttons`; absent: cancelled or never shown
  std::map<std::string, std::string> fields{};  ///< the text of each field, by the field's identifier
};

struct AlertRequest {
  /// Returns the alert. Called just before the alert is shown, so that its text is up to date.
  std::function<Alert()> describe;
  /// Called once, when the alert is answered or cancelled.
  std::function<void(const AlertAnswer&)> completion;
  /// At most one alert with this identifier is open or waiting at a time. If the identifier is empty, there
  /// is no such limit.
  std::string identifier{};
};

/// Shows alerts one at a time, in the order of the requests. If a button inside an open alert requests
/// another alert, that alert is shown at once, on top of the open one. Each face (tray or terminal)
/// implements `Alerts` and `StatusItem`. Main thread.
class Alerts {
 public:
  virtual ~Alerts() = default;

  /// Queues `request`, and returns before any function of `request` is called. If an alert with the same
  /// identifier is open or waiting, drops `request` and brings the open alerts to the front.
  virtual void present(AlertRequest request) = 0;
};

}  // namespace kestrune
