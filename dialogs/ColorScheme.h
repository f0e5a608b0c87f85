#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QVariant>

namespace kestrune::dialogs {

/// Makes the windows dark while the desktop prefers that and the toolkit's palette is light: Qt follows
/// GNOME's preference only since 6.5. The desktop portal tells it. Without a portal the palette stays as it
/// is.
class ColorScheme final : public QObject {
  Q_OBJECT

 public:
  /// Waits for the portal's answer, if there is a portal, for 100 ms at most. A later answer counts too.
  ColorScheme();

 private Q_SLOTS:
  void settingChanged(const QDBusMessage& signal);

 private:
  void follow(QVariant value);

  bool darkened = false;  ///< the palette is the dark one from here
};

}  // namespace kestrune::dialogs
