#pragma once

#include <QLabel>
#include <QPushButton>

#include "ports/Menu.h"

class QStyleOptionMenuItem;

namespace kestrune::dialogs {

/// The kind of a row in a menu window. It may change while the window is open.
enum class MenuRowKind { heading, label, separator, command };

/// `previous` is the row above, or null. A row without an action that begins a section is its heading.
MenuRowKind kindOf(const MenuItem& item, const MenuItem* previous);

/// The shortcut of an item; empty when it has none.
QKeySequence keysOf(const MenuItem& item);

/// A row that cannot be chosen. A QLabel, so that screen readers read it as a label.
class MenuLabel final : public QLabel {
 public:
  MenuLabel();

  void setItem(const MenuItem& item, MenuRowKind kind);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  QStyleOptionMenuItem option() const;

  MenuRowKind kind = MenuRowKind::label;
};

/// A row that can be chosen, with check mark and shortcut. A QPushButton, so that screen readers announce and
/// press it as one. A press does not change the check mark; only `setItem` does.
class MenuButton final : public QPushButton {
 public:
  MenuButton();

  /// `keyWidth` is the width in pixels of the widest shortcut in the menu.
  void setItem(const MenuItem& item, int keyWidth);

  /// The title, for screen readers.
  const QString& name() const { return title; }

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

 protected:
  void nextCheckState() override {}
  void keyPressEvent(QKeyEvent* event) override;
  void enterEvent(QEnterEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  QStyleOptionMenuItem option() const;

  QString title;
  QString keys;
  int keyRoom = 0;
};

/// Reports the shortcuts of rows with a check mark to screen readers, and the lines between rows as
/// separators. Qt omits those shortcuts, and reports the lines as empty panels.
void tellRowsToScreenReaders();

}  // namespace kestrune::dialogs
