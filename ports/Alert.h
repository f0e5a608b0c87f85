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

/// A window that says something and waits for one of its buttons.
struct Alert {
  AlertStyle style = AlertStyle::warning;
  std::string messageText;
  std::string informativeText;
  std::vector<std::string> buttons;  ///< at least one; the first is what Return presses
  std::optional<View> accessoryView{};
  std::weak_ptr<ActionTarget> target{};  ///< of the buttons inside the view

  /// Whether both look alike; whom their buttons act on does not count.
  friend bool operator==(const Alert& a, const Alert& b) {
    return a.style == b.style && a.messageText == b.messageText && a.informativeText == b.informativeText &&
           a.buttons == b.buttons && a.accessoryView == b.accessoryView;
  }
};

struct AlertAnswer {
  std::optional<std::size_t>
      button;  ///< counted from 0; absent when the user cancelled or nobody could be asked
  std::map<std::string, std::string> fields{};  ///< the texts of the view's fields, by their identifiers
};

struct AlertRequest {
  /// Called when the alert's turn has come, so that it says what is true then.
  std::function<Alert()> describe;
  /// Called once, when the alert is answered or given up.
  std::function<void(const AlertAnswer&)> completion;
  /// Of an alert of which there is one at a time; empty: any number.
  std::string identifier{};
};

/// Shows alerts one at a time, in the order in which they were asked for; those that a button inside an alert
/// asks for stand on top of it. A face of the program is an implementation of this and of the status bar.
/// Main thread.
class Alerts {
 public:
  virtual ~Alerts() = default;

  /// Asks for an alert and returns; nothing of the request is called before. If one of the same identifier is
  /// not answered yet, that one is brought to the front instead, and nothing is called at all.
  virtual void present(AlertRequest request) = 0;
};

}  // namespace kestrune
