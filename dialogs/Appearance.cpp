#include "dialogs/Appearance.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QEventLoop>
#include <QFontDatabase>
#include <QScreen>
#include <QStyle>
#include <QTimer>
#include <QWidget>
#include <algorithm>
#include <array>
#include <chrono>

namespace kestrune::dialogs {

constexpr double ordinaryPoints = 13;
constexpr double usualTextSize = 10.0 * 96 / 72;  // in pixels: 10 pt at 96 dpi
constexpr double smallestPrint = 8.0 * 96 / 72;   // in pixels: 8 pt at 96 dpi

/// Returns the size of the desktop's font, in logical pixels.
static double textSize() {
  const QFont font = QApplication::font();
  if (font.pixelSize() > 0) return font.pixelSize();
  return font.pointSizeF() * QGuiApplication::primaryScreen()->logicalDotsPerInchY() / 72;
}

/// Returns a dark palette for the widget style Fusion: the one that Fusion itself has in Qt 6.5 and later.
static QPalette darkPalette() {
  const QColor window(50, 50, 50);
  QPalette palette(window, window);
  palette.setColor(QPalette::Base, QColor(36, 36, 36));
  palette.setColor(QPalette::Highlight, QColor(48, 140, 198));
  for (const auto role : {QPalette::Text, QPalette::WindowText, QPalette::ButtonText})
    palette.setColor(QPalette::Disabled, role, QColor(130, 130, 130));
  return palette;
}

int pixels(double points) {
  return qRound(points * std::max(1.0, textSize() / usualTextSize));
}

QFont fontFor(double points, FontWeight weight) {
  static constexpr std::array weights{QFont::Normal, QFont::Medium, QFont::DemiBold};
  const double ordinary = textSize();
  const double wanted = ordinary * points / ordinaryPoints;
  QFont font = QApplication::font();
  font.setPixelSize(qRound(std::max(wanted, std::min(ordinary, smallestPrint))));
  font.setWeight(weights.at(static_cast<std::size_t>(weight)));
  return font;
}

void preferColorEmoji() {
  const QFont font = QApplication::font();
  // If the desktop's font is an alias like "Sans Serif", Qt tries the substitutions of the alias before it
  // resolves the alias. The substitutions added below are emoji fonts, which contain digits. So that Qt does
  // not take digits from them, make the real font, which QFontInfo names, the first substitution.
  QStringList substitutions{QFontInfo(font).family()};
  const QStringList installed = QFontDatabase::families();
  for (const auto& family : {QStringLiteral("Noto Color Emoji"), QStringLiteral("Twemoji")}) {
    if (installed.contains(family)) substitutions.append(family);
  }
  QFontDatabase::addApplicationFont(QStringLiteral(":/resources/lamps.ttf"));
  substitutions.append(QStringLiteral("Kestrune Lamps"));
  for (const QString& family : font.families()) QFont::insertSubstitutions(family, substitutions);
}

QColor colorFor(TextColor color, const QPalette& palette) {
  const QColor text = palette.color(QPalette::Active, QPalette::WindowText);
  if (color == TextColor::primary) return text;
  // Do not use the colours for disabled text: many themes make them too pale to read.
  const QColor window = palette.color(QPalette::Active, QPalette::Window);
  constexpr double textShare = 0.68;  // the rest is the window colour
  const auto blend = [](int over, int under) { return qRound(textShare * over + (1 - textShare) * under); };
  return {blend(text.red(), window.red()), blend(text.green(), window.green()),
          blend(text.blue(), window.blue())};
}

QSize roomForWindow() {
  QSize room(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
  for (const QScreen* const screen : QGuiApplication::screens()) {
    // While no screen is connected, Qt lists one of size 0.
    if (!screen->availableSize().isEmpty()) room = room.boundedTo(screen->availableSize());
  }
  // Estimate what the frame adds, because the real frame is unknown before the window is mapped.
  return room - QSize(16, 48);
}

ColorScheme::ColorScheme() {
  const auto service = QStringLiteral("org.freedesktop.portal.Desktop");
  const auto path = QStringLiteral("/org/freedesktop/portal/desktop");
  const auto interface = QStringLiteral("org.freedesktop.portal.Settings");
  const QStringList setting{QStringLiteral("org.freedesktop.appearance"), QStringLiteral("color-scheme")};
  QDBusConnection bus = QDBusConnection::sessionBus();
  bus.connect(service, path, interface, QStringLiteral("SettingChanged"), setting, QString(), this,
              SLOT(follow(QDBusMessage)));
  auto question = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Read"));
  question << setting[0] << setting[1];
  auto* const answer = new QDBusPendingCallWatcher(bus.asyncCall(question), this);
  connect(answer, &QDBusPendingCallWatcher::finished, this, [this, answer] { follow(answer->reply()); });
  // Wait for the answer: else, on a dark desktop, the first window would be painted light and then turn dark.
  QEventLoop wait;
  connect(answer, &QDBusPendingCallWatcher::finished, &wait, &QEventLoop::quit);
  QTimer::singleShot(std::chrono::milliseconds(100), &wait, &QEventLoop::quit);
  wait.exec();
}

void ColorScheme::follow(const QDBusMessage& message) {
  if (message.type() == QDBusMessage::ErrorMessage || message.arguments().isEmpty()) return;
  // `SettingChanged` contains the setting in a variant, the reply of `Read` in a variant inside another.
  QVariant value = message.arguments().last();
  while (value.canConvert<QDBusVariant>()) value = value.value<QDBusVariant>().variant();
  const bool dark = value.toUInt() == 1;  // "prefer dark"
  if (dark == darkened) return;
  // Only Fusion gets the dark palette, because other styles have palettes of their own.
  const bool isFusion = QApplication::style()->name() == QLatin1String("fusion");
  const QPalette now = QApplication::palette();
  const bool isLight = now.window().color().lightness() >= now.windowText().color().lightness();
  if (dark && !(isFusion && isLight)) return;
  darkened = dark;
  QApplication::setPalette(dark ? darkPalette() : QPalette());
}

}  // namespace kestrune::dialogs
