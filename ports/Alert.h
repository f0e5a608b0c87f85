#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ports/Image.h"
#include "ports/Menu.h"

namespace kestrune {

enum class ViewKind { label, textField, secureTextField, button, image, stack, scroll, container };

enum class FontWeight { regular, medium, semibold };
enum class TextColor { primary, secondary };
enum class TextAlignment { natural, center };
enum class LineBreak { wordWrap, truncateMiddle };
enum class StackAlignment { leading, centerX };

/// Empty margins around the content, in points.
struct Insets {
  double top = 0;
  double left = 0;
  double bottom = 0;
  double right = 0;

  bool operator==(const Insets&) const = default;
};

/// A node in the tree of views that is the content of an alert. Sizes are in points; a view with width or
/// height 0 is as wide or high as its content. Members that do not apply to `kind` are ignored.
struct View {
  ViewKind kind = ViewKind::container;
  std::string identifier{};          ///< of a field: the unique key of its text in `AlertAnswer::fields`
  std::string text{};                ///< of labels, buttons and fields
  std::string placeholder{};         ///< of fields: shown while the field is empty
  std::string action{};              ///< of a button: what `Alert::target` performs; the alert stays open
  std::string accessibilityLabel{};  ///< for screen readers; if it is empty, they read `text`

  double fontSize = 13;
  FontWeight fontWeight = FontWeight::regular;
  TextColor textColor = TextColor::primary;
  TextAlignment textAlignment = TextAlignment::natural;
  LineBreak lineBreak = LineBreak::wordWrap;
  int maximumLines = 0;  ///< 0: no limit

  double width = 0;
  double height = 0;
  StackAlignment alignment = StackAlignment::leading;  ///< of a stack, which is always vertical
  double spacing = 0;                                  ///< between the children of a stack
  Insets insets{};                                     ///< of a stack or a container, around the children

  ImageRef image{};              ///< scaled to fit the view; keeps its proportions
  std::vector<View> children{};  ///< any number in a stack; one in a scroll view or container

  bool operator==(const View&) const = default;
};

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
  std::optional<std::size_t> button;  ///< index in `Alert::buttons`; absent: alert cancelled or not shown
  std::map<std::string, std::string> fields{};  ///< the text of each field, by the field's identifier
};

struct AlertRequest {
  /// Returns the alert. Called just before the alert is shown, so that its text is up to date.
  std::function<Alert()> describe;
  /// Called at most once: when the user answers or cancels the alert, or when the alert cannot be shown.
  std::function<void(const AlertAnswer&)> completion;
  /// At most one alert with this identifier is open or waiting at a time. If the identifier is empty, there
  /// is no such limit.
  std::string identifier{};
};

/// Shows alerts one at a time, in the order of the requests. If a button inside an open alert requests
/// another alert, that alert is shown at once, on top of the open one. Main thread.
class Alerts {
 public:
  virtual ~Alerts() = default;

  /// Queues `request`, and returns before any function of `request` is called. If an alert with the same
  /// identifier is open or waiting, ignores `request`: calls none of its functions, and brings the open
  /// alerts to the front.
  virtual void present(AlertRequest request) = 0;
};

}  // namespace kestrune
