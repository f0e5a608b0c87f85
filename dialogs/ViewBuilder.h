#pragma once

#include <functional>
#include <string>

#include "ports/View.h"

class QWidget;

namespace kestrune::dialogs {

/// Builds the widget of a view. It has no parent, and the caller takes ownership. Each field inside is a
/// QLineEdit whose object name is the identifier of the field. At each press of a button inside, `pressed` is
/// called with the action of that button.
QWidget* buildView(const View& view, const std::function<void(const std::string& action)>& pressed = {});

/// Returns whether `widget` or a part of it scrolls, so that it may be lower than its size hint.
bool canShrink(const QWidget& widget);

}  // namespace kestrune::dialogs
