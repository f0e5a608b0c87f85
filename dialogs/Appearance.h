#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>
#include <QSize>

#include "ports/View.h"

// Sizes, fonts and colours of a view in terms of the desktop's own: a view counts in points, 13 of which are
// the height of ordinary text.

namespace kestrune::dialogs {

/// The height of ordinary text, in logical pixels.
double textSize();

/// Logical pixels for a length that has to do with text. A point is one, unless the desktop's text is larger
/// than usual: then lengths grow with it, so that what fits still fits.
int pixels(double points);

/// The desktop's font in another size and weight. Small print stays legible.
QFont fontFor(double points, FontWeight weight);

/// From now on, emoji are drawn in colour, if a font for that is installed, and the lamps 🟢 🟡 🔴 in any
/// case. By itself the toolkit may take a font that has them in black and white.
void preferColorEmoji();

/// A colour that is not the desktop's own, but made of two of it.
QColor colorFor(TextColor color, const QPalette& palette);

/// What every screen has room for, the frame of a window left aside: it is not known before which screen a
/// window appears on.
QSize roomForWindow();

}  // namespace kestrune::dialogs
