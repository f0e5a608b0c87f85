#pragma once

#include <QWidget>

#include "ports/Alert.h"

namespace kestrune::dialogs {

/// Builds the widget of a view, without a parent; the caller takes ownership. Each field is a QLineEdit with
/// the field's identifier as its object name, and each button a QPushButton with its action as the name.
QWidget* buildView(const View& view);

/// Returns whether `widget` is or contains a scroll area. The height of such a widget can be less than its
/// size hint.
bool canShrink(const QWidget& widget);

}  // namespace kestrune::dialogs
