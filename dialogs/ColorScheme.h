#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QVariant>

namespace kestrune::dialogs {

/// Sets a dark palette while the desktop portal says "prefer dark" (its setting color-scheme) and Qt's own
/// palette is light. This is needed because Qt before 6.5 does not follow GNOME's setting. Without a portal,
/// the palette is not changed.
class ColorScheme final : public QObject {
  Q_OBJECT

 public:
  /// Asks the portal and waits at most 100 ms for its answer. An answer that comes later still takes effect.
  ColorScheme();

 private Q_SLOTS:
  void settingChanged(const QDBusMessage& signal);

 private:
  void follow(QVariant value);

  bool darkened = false;  ///< whether the dark palette of this class is set now
};

}  // namespace kestrune::dialogs
