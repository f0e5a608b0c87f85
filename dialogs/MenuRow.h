#pragma once

#include <QAccessible>
#include <QPushButton>

#include "ports/Menu.h"

class QStyleOptionMenuItem;

namespace kestrune::dialogs {

/// The shortcut of an item; empty when it has none.
QKeySequence keysOf(const MenuItem& item);

/// A row in a menu window, painted like an item in the desktop's menus. It is enabled while it can be chosen;
/// a press does not change its check mark, only `setItem` does.
class MenuRow final : public QPushButton {
 public:
  explicit MenuRow(int id);

  const int id;  ///< of the item

  /// A row without an action that begins a section is its heading. `keyWidth` is the width in pixels of the
  /// widest shortcut in the menu.
  void setItem(const MenuItem& item, bool beginsSection, int keyWidth);

  /// For screen readers.
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
