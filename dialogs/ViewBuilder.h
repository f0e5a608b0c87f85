#pragma once

#include <QWidget>
#include <functional>
#include <string>

#include "ports/Alert.h"

namespace kestrune::dialogs {

/// Builds the widget of a view, without a parent; the caller takes ownership. Each field is a QLineEdit with
/// the field's identifier as its object name. A press on a button calls `pressed` with the button's `action`.
QWidget* buildView(const View& view, const std::function<void(const std::string& action)>& pressed = {});

/// Returns whether `widget` is or contains a scroll area. The height of such a widget can be less than its
/// size hint.
bool canShrink(const QWidget& widget);

}  // namespace kestrune::dialogs
