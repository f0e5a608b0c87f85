#include "dialogs/DialogWindow.h"

#include <QLineEdit>
#include <QShowEvent>
#include <utility>

namespace kestrune::dialogs {

DialogWindow::DialogWindow(int number, const QString& name, QWidget* beneath) : QDialog(beneath), id(number) {
  if (beneath != nullptr) setWindowModality(Qt::WindowModal);
  const QString program = QStringLiteral("Kestrune");
  const QString shown = name.isEmpty() ? program : name;
  // A task bar shows the titles of many programs. So add the program's name to the title.
  setWindowTitle(shown.contains(program) ? shown : shown + QStringLiteral(" — ") + program);
  setAccessibleName(shown);
}

void DialogWindow::present(bool isTop) {
  if (isMinimized()) setWindowState(windowState() & ~Qt::WindowMinimized);
  auto* const field = isHidden() ? qobject_cast<QLineEdit*>(focusWidget()) : nullptr;
  const int cursor = field != nullptr ? field->cursorPosition() : 0;
  show();
  // show() has selected the text of the focused field. The user's next key would replace the text, and only
  // the end of a long text would be visible. So restore the cursor position, which also deselects the text.
  if (field != nullptr) field->setCursorPosition(cursor);
  raise();
  if (isTop) activateWindow();
}

void DialogWindow::showEvent(QShowEvent* event) {
  QDialog::showEvent(event);
  if (event->spontaneous()) return;
  windowHandle()->installEventFilter(this);
  // Map the window with a fixed size: some compositors put a new window into a tile unless its size is fixed.
  // After the window is exposed, `eventFilter` removes the fixed size.
  if (isOnWayland()) limitSize(size(), size());
}

bool DialogWindow::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() == QEvent::Expose && windowHandle()->isExposed()) {
    watched->removeEventFilter(this);
    if (furnish) std::exchange(furnish, nullptr)();
    const auto painted = [this] {
      if (isOnWayland()) limitSize(minimumSize(), maximumSize());
      if (onShown) std::exchange(onShown, nullptr)();
    };
    // This call is queued, so that it runs after the expose event has painted the window.
    QMetaObject::invokeMethod(this, painted, Qt::QueuedConnection);
  }
  return QDialog::eventFilter(watched, event);
}

}  // namespace kestrune::dialogs
