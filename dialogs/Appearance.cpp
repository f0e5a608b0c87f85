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
constexpr double usualTextSize = 10.0 * 96 / 72;  // pixels: ten typographic points on a usual screen
constexpr double smallestPrint = 8.0 * 96 / 72;   // pixels
constexpr double secondaryShare = 0.68;  // of the text's colour: readable, and told apart from the primary

constexpr std::array emojiFamilies{
    "Noto Color Emoji", "Twitter Color Emoji", "Twemoji",   "Apple Color Emoji",
    "Segoe UI Emoji",   "OpenMoji Color",      "Emoji One", "EmojiOne Mozilla",
    "Emoji Two",        "JoyPixels",           "Blobmoji"};

// The frame is the window manager's, and cannot be asked for before there is a window.
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
  QFont font = QApplication::font();
  const double ordinary = textSize();
  const double wanted = ordinary * points / ordinaryPoints;
  const double factor = std::max(wanted, std::min(ordinary, smallestPrint)) / ordinary;
  if (font.pixelSize() > 0) {
    font.setPixelSize(static_cast<int>(std::lround(font.pixelSize() * factor)));
  } else {
    font.setPointSizeF(font.pointSizeF() * factor);
  }
  switch (weight) {
    case FontWeight::regular:
      break;
    case FontWeight::medium:
      font.setWeight(QFont::Medium);
      break;
    case FontWeight::semibold:
      font.setWeight(QFont::DemiBold);
      break;
  }
  return font;
}

void preferColorEmoji() {
  const QFont font = QApplication::font();
  // Emoji fonts have digits, too, so the desktop's font comes first. It may be a name like "Sans Serif",
  // which the toolkit looks up only after the substitutions: they begin with the font that this leads to.
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
  // The palette's own dimmed colours are for what need not be read: many themes leave them too pale.
  const QColor window = palette.color(QPalette::Active, QPalette::Window);
  const auto blend = [](float over, float under) {
    return static_cast<float>(secondaryShare) * over + static_cast<float>(1 - secondaryShare) * under;
  };
  return QColor::fromRgbF(blend(static_cast<float>(text.redF()), static_cast<float>(window.redF())),
                          blend(static_cast<float>(text.greenF()), static_cast<float>(window.greenF())),
                          blend(static_cast<float>(text.blueF()), static_cast<float>(window.blueF())));
}

QSize roomForWindow() {
  QSize room(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
  for (const QScreen* const screen : QGuiApplication::screens()) {
    room = room.boundedTo(screen->availableSize());
  }
  return room - windowFrame;
}

}  // namespace kestrune::dialogs
