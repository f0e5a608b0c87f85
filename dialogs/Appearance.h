#pragma once

#include <QColor>
#include <QDBusMessage>
#include <QFont>
#include <QObject>
#include <QPalette>
#include <QSize>

#include "ports/Alert.h"

// These functions derive the sizes, fonts and colours of a view from the desktop's settings. The sizes in a
// view are in points. A font of 13 points is as large as the desktop's font.

namespace kestrune::dialogs {

/// Converts points to logical pixels. A point is one pixel, or more when the desktop's font is larger than 10
/// pt, so that texts still fit.
int pixels(double points);

/// Returns the desktop's font with this weight and size. The size is not less than 8 pt or the size of the
/// desktop's font, whichever is smaller.
QFont fontFor(double points, FontWeight weight);

/// Makes Qt draw emoji in colour if a colour emoji font is installed; otherwise Qt may choose a
/// black-and-white font. Makes Qt draw 🟢 🟡 🔴 in colour on every machine, from resources/lamps.ttf.
void preferColorEmoji();

/// Returns the text colour of the palette. For secondary text, mixes it with the window colour.
QColor colorFor(TextColor color, const QPalette& palette);

/// Returns the largest size of a window, without its frame, that fits on every screen, in logical pixels.
/// Every screen counts, because a window's screen is unknown before the window appears.
QSize roomForWindow();

/// Sets a dark palette while the desktop portal says "prefer dark" (its setting color-scheme) and Qt's own
/// palette is light. This is needed because Qt before 6.5 does not follow GNOME's setting. Without a portal,
/// the palette is not changed.
class ColorScheme final : public QObject {
  Q_OBJECT

 public:
  /// Asks the portal and waits at most 100 ms for its answer. An answer that comes later still takes effect.
  ColorScheme();

 private Q_SLOTS:
  /// Handles a message whose last argument is the setting: the portal's answer, or its signal.
  void follow(const QDBusMessage& message);

 private:
  bool darkened = false;  ///< whether the dark palette of this class is set now
};

}  // namespace kestrune::dialogs
