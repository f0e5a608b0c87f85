#pragma once

#include <QAccessible>
#include <QPushButton>

#include "ports/Menu.h"

class QStyleOptionMenuItem;

namespace kestrune::dialogs {

/// Returns the shortcut of an item. The result is empty if the item has no shortcut.
QKeySequence keysOf(const MenuItem& item);

/// A row in a menu window, painted like an item in the desktop's menus. The row is enabled while the user can
/// choose it. A press does not change the check mark of the row; only `setItem` changes it.
class MenuRow final : public QPushButton {
 public:
  explicit MenuRow(int id);

  const int id;  ///< the identifier of the row's menu item

  /// Shows `item` in this row. If `beginsSection` is true and the item is disabled and has no action, the row
  /// is painted as the heading of its section. `keyWidth`: pixels; width of the menu's widest shortcut.
  void setItem(const MenuItem& item, bool beginsSection, int keyWidth);

  /// Returns the role that screen readers announce: separator, text, check box or push button.
  QAccessible::Role role() const { return accessibleRole; }

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
  QString elidedTitle() const;

  QAccessible::Role accessibleRole = QAccessible::StaticText;
  QString wholeTitle;
  int keyRoom = 0;
};

}  // namespace kestrune::dialogs
