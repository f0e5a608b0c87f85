#pragma once

#include <string>
#include <vector>

#include "ports/Image.h"

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

/// Describes the contents of an alert: a tree of views that a face (tray or terminal) draws. Sizes are in
/// points; a width or height of 0 fits the content. Members that do not apply to `kind` are ignored.
struct View {
  ViewKind kind = ViewKind::container;
  std::string identifier{};          ///< of a field: the key of its text in `AlertAnswer::fields`; unique
  std::string text{};                ///< of labels, buttons and fields
  std::string placeholder{};         ///< of fields: shown while the field is empty
  std::string action{};              ///< of a button: the alert's target performs it; the alert stays open
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

}  // namespace kestrune
