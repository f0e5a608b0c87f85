#include "dialogs/ColorScheme.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QEventLoop>
#include <QPalette>
#include <QStyle>
#include <QTimer>
#include <chrono>

namespace kestrune::dialogs {

namespace {

const auto service = QStringLiteral("org.freedesktop.portal.Desktop");
const auto path = QStringLiteral("/org/freedesktop/portal/desktop");
const auto interface = QStringLiteral("org.freedesktop.portal.Settings");
const auto appearance = QStringLiteral("org.freedesktop.appearance");
const auto colorScheme = QStringLiteral("color-scheme");
constexpr uint preferDark = 1;
constexpr std::chrono::milliseconds patience{100};

bool isDark(const QPalette& palette) {
  return palette.color(QPalette::Window).lightness() < palette.color(QPalette::WindowText).lightness();
}

/// Returns the dark palette that later versions of Qt have for the widget style Fusion.
QPalette darkPalette() {
  const QColor window(50, 50, 50);
  QPalette palette(window, window);
  palette.setColor(QPalette::Base, QColor(36, 36, 36));
  palette.setColor(QPalette::Highlight, QColor(48, 140, 198));
  for (const auto role : {QPalette::Text, QPalette::WindowText, QPalette::ButtonText})
    palette.setColor(QPalette::Disabled, role, QColor(130, 130, 130));
  return palette;
}

}  // namespace

ColorScheme::ColorScheme() {
  QDBusConnection bus = QDBusConnection::sessionBus();
  bus.connect(service, path, interface, QStringLiteral("SettingChanged"), this,
              SLOT(settingChanged(QDBusMessage)));
  auto question = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Read"));
  question << appearance << colorScheme;
  auto* const answer = new QDBusPendingCallWatcher(bus.asyncCall(question), this);
  connect(answer, &QDBusPendingCallWatcher::finished, this, [this, answer] {
    answer->deleteLater();
    if (!answer->isError()) follow(answer->reply().arguments().value(0));
  });
  // Wait for the answer here. A window painted before the answer would be light first and then turn dark.
  QEventLoop wait;
  connect(answer, &QDBusPendingCallWatcher::finished, &wait, &QEventLoop::quit);
  QTimer::singleShot(patience, &wait, &QEventLoop::quit);
  wait.exec();
}

void ColorScheme::settingChanged(const QDBusMessage& signal) {
  const QVariantList told = signal.arguments();
  if (told.size() == 3 && told[0] == appearance && told[1] == colorScheme) follow(told[2]);
}

void ColorScheme::follow(QVariant value) {
  // The signal `SettingChanged` contains the value in a variant. The answer to the portal's method `Read` has
  // one more variant around it.
  while (value.canConvert<QDBusVariant>()) value = value.value<QDBusVariant>().variant();
  const bool dark = value.toUInt() == preferDark;
  if (dark == darkened) return;
  if (!dark) {
    QApplication::setPalette(QPalette());
  } else if (QApplication::style()->name() == QLatin1String("fusion") && !isDark(QApplication::palette())) {
    // Only Fusion gets the dark palette, because other styles have palettes of their own.
    QApplication::setPalette(darkPalette());
  } else {
    return;
  }
  darkened = dark;
}

}  // namespace kestrune::dialogs
