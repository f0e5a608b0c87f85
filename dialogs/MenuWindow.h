#pragma once

#include <QScrollArea>
#include <functional>
#include <vector>

#include "dialogs/DialogWindow.h"
#include "ports/Menu.h"

namespace kestrune::dialogs {

class MenuRow;

/// A window that shows a menu, for desktops without a tray and for trays that do not open menus. The arrow
/// keys, Home and End move the focus from row to row. At first no row has the focus: otherwise a key press
/// meant for another window could choose a row.
class MenuWindow final : public DialogWindow {
 public:
  /// Creates the window with one row for each item of `menu`, and does not show it yet.
  explicit MenuWindow(const Menu& menu);

  /// Called with the ID of the item that the user chose, after the window is hidden. If the user closes the
  /// window without a choice, QDialog::rejected is emitted instead.
  std::function<void(int item)> onChosen;

  /// Updates the rows in place and keeps the focus. `menu` must have the same item IDs as the menu that the
  /// constructor got.
  void setMenu(const Menu& menu);

 protected:
  void keyPressEvent(QKeyEvent* event) override;

 private:
  int widthForRows() const;
  /// Moves the focus to the next or the previous choosable row, and scrolls to it. Wraps around.
  void moveFocus(bool next);

  QScrollArea* const area = new QScrollArea;
  std::vector<MenuRow*> rows;
};

}  // namespace kestrune::dialogs
