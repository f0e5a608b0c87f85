#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ports/Alert.h"

namespace kestrune::testing {

inline View label(const std::string& text) {
  return {.kind = ViewKind::label, .text = text};
}
inline View field(const std::string& name, const std::string& text, ViewKind kind = ViewKind::textField) {
  return {.kind = kind, .identifier = name, .text = text, .accessibilityLabel = "Field " + name};
}
inline View stack(std::vector<View> children) {
  return {.kind = ViewKind::stack, .children = std::move(children)};
}
inline View button(const std::string& title, const std::string& action) {
  return {.kind = ViewKind::button, .text = title, .action = action};
}
inline Alert form(std::vector<View> views) {
  return {.style = AlertStyle::informational,
          .messageText = "Form",
          .informativeText = "About it",
          .buttons = {"Save", "Cancel"},
          .accessoryView = stack(std::move(views))};
}

}  // namespace kestrune::testing
