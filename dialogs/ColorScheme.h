#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QVariant>

namespace kestrune::dialogs {

/// Sets a dark palette while the desktop portal says "prefer dark" (color-scheme) and Qt's palette is light:
/// Qt follows GNOME's setting only since 6.5. Without a portal the palette is not changed.
class ColorScheme final : public QObject {
  Q_OBJECT

 public:
  /// Waits at most 100 ms for the portal's answer. A later answer takes effect too.
  ColorScheme();

 private Q_SLOTS:
  void settingChanged(const QDBusMessage& signal);

 private:
  void follow(QVariant value);

  bool darkened = false;  ///< the palette is the dark one of this class
};

}  // namespace kestrune::dialogs
