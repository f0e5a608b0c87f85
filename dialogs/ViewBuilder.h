#pragma once

#include <functional>
#include <string>

#include "ports/View.h"

class QWidget;

namespace kestrune::dialogs {

/// The widget of a view, without a parent; the caller takes ownership. The fields in it are QLineEdits whose
/// object names are their identifiers. `pressed` is called with the action of a button each time that it is
/// pressed.
QWidget* buildView(const View& view, const std::function<void(const std::string& action)>& pressed = {});

/// Whether `widget` or a part of it scrolls, so that it may be lower than its size hint.
bool canShrink(const QWidget& widget);

}  // namespace kestrune::dialogs
