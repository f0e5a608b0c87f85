#pragma once

#include <functional>
#include <map>
#include <string>

#include "ports/View.h"

class QLineEdit;
class QWidget;

namespace kestrune::dialogs {

/// The widgets of a view.
struct BuiltView {
  QWidget* widget = nullptr;                   ///< without a parent; the caller takes ownership
  std::map<std::string, QLineEdit*> fields{};  ///< by identifier; owned by `widget`
  QLineEdit* firstField = nullptr;
  bool canShrink = false;  ///< may be lower than its size hint, because its content scrolls
};

/// Calls `pressed` with the action of a button in the view each time that it is pressed.
BuiltView buildView(const View& view, const std::function<void(const std::string& action)>& pressed);

}  // namespace kestrune::dialogs
