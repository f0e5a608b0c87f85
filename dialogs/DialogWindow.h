#pragma once

#include <QDialog>
#include <functional>

class QScrollBar;

namespace kestrune::dialogs {

bool isOnWayland();

/// Scrolls for Page Up, Page Down, Home and End; false for other keys.
bool scrollByKey(QScrollBar& bar, const QKeyEvent& event);

/// The base class of this program's windows.
class DialogWindow : public QDialog {
 public:
  /// A window-modal window on top of `beneath`, or an independent one when that is null.
  explicit DialogWindow(QWidget* beneath);

  /// Called once, when the window is on the screen and painted.
  std::function<void()> onShown;

  /// Shows the window, restores it when minimised, raises it, and asks for the keyboard focus.
  void present();

 protected:
  /// Sets the title, and the name for screen readers.
  void setName(const QString& name);

  /// Called once, when the window is mapped but not painted: for slow work that does not change the layout.
  virtual void furnish() {}

  void showEvent(QShowEvent* event) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void limitSize(QSize least, QSize most);
};

}  // namespace kestrune::dialogs
