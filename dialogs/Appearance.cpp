#include "dialogs/Appearance.h"

#include <QApplication>
#include <QFontDatabase>
#include <QScreen>
#include <QWidget>
#include <algorithm>
#include <array>
#include <cmath>

namespace kestrune::dialogs {

namespace {

constexpr double ordinaryPoints = 13;
constexpr double usualTextSize = 10.0 * 96 / 72;  // pixels; 10 pt at 96 dpi
constexpr double smallestPrint = 8.0 * 96 / 72;   // pixels; 8 pt at 96 dpi
constexpr double secondaryShare = 0.68;  // of the text colour in secondary text; the rest is window colour

constexpr std::array emojiFamilies{
    "Noto Color Emoji", "Twitter Color Emoji", "Twemoji",   "Apple Color Emoji",
    "Segoe UI Emoji",   "OpenMoji Color",      "Emoji One", "EmojiOne Mozilla",
    "Emoji Two",        "JoyPixels",           "Blobmoji"};

// What the frame adds to the width and height of a window, in pixels. This is an estimate, because the real
// frame is unknown before the window is mapped.
constexpr QSize windowFrame(16, 48);

}  // namespace

double textSize() {
  const QFont font = QApplication::font();
  if (font.pixelSize() > 0) return font.pixelSize();
  return font.pointSizeF() * QGuiApplication::primaryScreen()->logicalDotsPerInchY() / 72;
}

int pixels(double points) {
  return static_cast<int>(std::lround(points * std::max(1.0, textSize() / usualTextSize)));
}

QFont fontFor(double points, FontWeight weight) {
  static constexpr std::array weights{QFont::Normal, QFont::Medium, QFont::DemiBold};
  const double ordinary = textSize();
  const double wanted = ordinary * points / ordinaryPoints;
  QFont font = QApplication::font();
  font.setPixelSize(static_cast<int>(std::lround(std::max(wanted, std::min(ordinary, smallestPrint)))));
  font.setWeight(weights.at(static_cast<std::size_t>(weight)));
  return font;
}

void preferColorEmoji() {
  const QFont font = QApplication::font();
  // Put the desktop's font first: otherwise digits could come from an emoji font. The name of the desktop's
  // font may be an alias like "Sans Serif", which Qt would resolve only after the substitutions. So resolve
  // the alias here.
  QStringList substitutions{QFontInfo(font).family()};
  const QStringList installed = QFontDatabase::families();
  for (const char* const family : emojiFamilies) {
    if (const auto name = QString::fromLatin1(family); installed.contains(name)) substitutions.append(name);
  }
  QFontDatabase::addApplicationFont(QStringLiteral(":/resources/lamps.ttf"));
  substitutions.append(QStringLiteral("Kestrune Lamps"));
  const QStringList families = font.families();
  for (const QString& family : families) QFont::insertSubstitutions(family, substitutions);
}

QColor colorFor(TextColor color, const QPalette& palette) {
  const QColor text = palette.color(QPalette::Active, QPalette::WindowText);
  if (color == TextColor::primary) return text;
  // Do not use the colours for disabled text: many themes make them too pale to read.
  const QColor window = palette.color(QPalette::Active, QPalette::Window);
  const auto blend = [](int over, int under) {
    return static_cast<int>(std::lround(secondaryShare * over + (1 - secondaryShare) * under));
  };
  return {blend(text.red(), window.red()), blend(text.green(), window.green()),
          blend(text.blue(), window.blue())};
}

QSize roomForWindow() {
  QSize room(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
  for (const QScreen* const screen : QGuiApplication::screens()) {
    room = room.boundedTo(screen->availableSize());
  }
  return room - windowFrame;
}

}  // namespace kestrune::dialogs
