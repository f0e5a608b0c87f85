#pragma once

#include <QDialog>
#include <functional>

namespace kestrune::dialogs {

bool isOnWayland();

/// What the windows of this program have in common.
class DialogWindow : public QDialog {
 public:
  /// A window on top of `beneath`, which waits for it, or one by itself.
  explicit DialogWindow(QWidget* beneath);

  /// Called once, when the window is on the screen and drawn.
  std::function<void()> onShown;

  /// Shows it and brings it to the front, also out of an icon, with the keyboard if the desktop allows it.
  void present();

 protected:
  /// What the window is called, in its title and by a screen reader.
  void setName(const QString& name);

  /// Called once, when the window has its place on the screen and nothing is drawn yet: for what takes time
  /// to find and does not change the layout.
  virtual void furnish() {}

  void showEvent(QShowEvent* event) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void limitSize(QSize least, QSize most);
};

}  // namespace kestrune::dialogs
