#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>
#include <QSize>

#include "ports/View.h"

// Sizes, fonts and colours of a view, derived from the desktop's own. Views use points: 13 points are the
// size of the application font.

namespace kestrune::dialogs {

/// The size of the application font, in logical pixels.
double textSize();

/// Converts points to logical pixels: one each, or more when the desktop's font is larger than 10 pt, so that
/// texts still fit.
int pixels(double points);

/// The desktop's font in this size and weight. Never below 8 pt, or below the desktop's own size
/// where that is smaller than 8 pt.
QFont fontFor(double points, FontWeight weight);

/// Makes Qt draw emoji in colour when such a font is installed, and the lamps 🟢 🟡 🔴 always
/// (resources/lamps.ttf). By itself, Qt may choose a black-and-white font.
void preferColorEmoji();

/// The palette's text colour; for secondary text, blended with its window colour.
QColor colorFor(TextColor color, const QPalette& palette);

/// The size that fits on every screen, less a window frame: before a window appears, its screen is unknown.
QSize roomForWindow();

}  // namespace kestrune::dialogs
