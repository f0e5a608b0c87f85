#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>
#include <QSize>

#include "ports/View.h"

// Sizes, fonts and colours of a view, derived from those of the desktop. The sizes in a view are in points;
// 13 points stand for the size of the application font.

namespace kestrune::dialogs {

/// Returns the size of the application font, in logical pixels.
double textSize();

/// Converts points to logical pixels. A point is one pixel, or more when the desktop's font is larger than 10
/// pt, so that texts still fit.
int pixels(double points);

/// Returns the desktop's font with this size and weight, but at least 8 pt large. If the desktop's font is
/// smaller than 8 pt, the least size is that of the desktop's font.
QFont fontFor(double points, FontWeight weight);

/// Makes Qt draw emoji in colour if a colour emoji font is installed. The emoji 🟢 🟡 🔴 are always
/// drawn in colour, from resources/lamps.ttf. Without this call, Qt may choose a black-and-white font.
void preferColorEmoji();

/// Returns the text colour of the palette. For secondary text, mixes it with the window colour.
QColor colorFor(TextColor color, const QPalette& palette);

/// Returns the largest size that fits on every screen, without the window's frame. It considers every screen
/// because a window's screen is unknown before the window appears.
QSize roomForWindow();

}  // namespace kestrune::dialogs
