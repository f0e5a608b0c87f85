#pragma once

#include <functional>
#include <map>
#include <string>

#include "ports/View.h"

class QLineEdit;
class QWidget;

namespace kestrune::dialogs {

/// A view as widgets.
struct BuiltView {
  QWidget* widget = nullptr;                   ///< without a parent: the caller takes it over
  std::map<std::string, QLineEdit*> fields{};  ///< by their identifiers; they live as long as the widget
  QLineEdit* firstField = nullptr;
  bool canShrink = false;  ///< its height may be less than what it asks for, because its content scrolls
};

/// `pressed` is called with the action of a button in the view whenever it is pressed.
BuiltView buildView(const View& view, const std::function<void(const std::string& action)>& pressed);

}  // namespace kestrune::dialogs
