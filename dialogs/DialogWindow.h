#pragma once

#include <QDialog>
#include <QGuiApplication>
#include <QWindow>
#include <functional>

namespace kestrune::dialogs {

inline bool isOnWayland() {
  return QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
}

/// The base class of this program's windows.
class DialogWindow : public QDialog {
 public:
  /// Creates a hidden window on top of the window `beneath`. While the new window is open, `beneath` takes no
  /// input. If `beneath` is null, the new window is independent. Screen readers read `name`, and the title
  /// shows it. An empty `name` stands for the program's name.
  DialogWindow(int number, const QString& name, QWidget* beneath);

  const int id;  ///< of the alert; 0 for the menu

  /// Called once, after the window has appeared on the screen and has been painted.
  std::function<void()> onShown;

  /// Shows the window, restores it if it is minimised, and raises it. If it is the top window, also asks for
  /// the keyboard focus.
  void present(bool isTop = true);

 protected:
  /// Called once, after the window is mapped and before it is painted. A derived class does slow work here
  /// and not in its constructor, so that the window appears sooner. This work must not change the layout.
  std::function<void()> furnish;

  void showEvent(QShowEvent* event) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void limitSize(QSize least, QSize most) {
    windowHandle()->setMinimumSize(least);
    windowHandle()->setMaximumSize(most);
  }
};

}  // namespace kestrune::dialogs
