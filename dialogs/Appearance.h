#pragma once

#include <QColor>
#include <QDBusMessage>
#include <QFont>
#include <QObject>
#include <QPalette>
#include <QSize>

#include "ports/Alert.h"

// These functions derive the sizes, fonts and colours of a view from the desktop's settings. A view states
// its lengths and font sizes in points. A point is a unit of this program, not 1/72 inch: `pixels` converts
// lengths, and `fontFor` converts font sizes.

namespace kestrune::dialogs {

/// Converts a length from points to logical pixels. If the size of the desktop's font is at most 13.3 pixels,
/// one point is one pixel. With a larger font, one point is more than one pixel, in proportion to the font
/// size, because texts then need more room.
int pixels(double points);

/// Returns the desktop's font with this weight, scaled by `points` / 13; never down to less than 11 pixels.
QFont fontFor(double points, FontWeight weight);

/// Makes Qt prefer an installed colour emoji font to a black-and-white font. If no colour emoji font is
/// installed, Qt still draws 🟢 🟡 🔴 in colour: these come from resources/lamps.ttf.
void preferColorEmoji();

/// Returns the text colour of the palette. For secondary text, mixes it with the window colour.
QColor colorFor(TextColor color, const QPalette& palette);

/// Returns how large the contents of a window may be, in logical pixels. A window of this size and its frame
/// fit on every screen. Every screen counts, because a window's screen is unknown before the window appears.
QSize roomForWindow();

/// Sets a dark palette while the desktop portal says "prefer dark" (its setting color-scheme), if Qt uses the
/// style Fusion with a light palette. This is needed because Qt before 6.5 does not follow GNOME's setting.
/// Without a portal, the palette is not changed.
class ColorScheme final : public QObject {
  Q_OBJECT

 public:
  /// Asks the desktop portal, and waits at most 100 ms for the answer. A later answer still takes effect.
  ColorScheme();

 private Q_SLOTS:
  /// Applies the colour scheme in the last argument of `message`, which is the reply of the portal's method
  /// `Read` or the portal's signal `SettingChanged`.
  void follow(const QDBusMessage& message);

 private:
  bool darkened = false;  ///< whether the dark palette of this class is set now
};

}  // namespace kestrune::dialogs
