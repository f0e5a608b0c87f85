#pragma once

#include <functional>
#include <string>

#include "ports/Alert.h"

class QWidget;

namespace kestrune::dialogs {

/// Builds the widget of a view, without a parent; the caller takes ownership. Each field is a QLineEdit with
/// the field's identifier as its object name. A press of a button calls `pressed` with its action.
QWidget* buildView(const View& view, const std::function<void(const std::string& action)>& pressed = {});

/// Returns whether `widget` or a part of it scrolls, so that its height may be less than its size hint.
bool canShrink(const QWidget& widget);

}  // namespace kestrune::dialogs
