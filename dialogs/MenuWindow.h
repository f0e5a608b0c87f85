#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "dialogs/DialogWindow.h"
#include "dialogs/MenuRow.h"
#include "ports/Menu.h"

class QScrollArea;
class QVBoxLayout;

namespace kestrune::dialogs {

/// A window that shows a menu, for desktops without a tray. The keys work as in a menu. At first no row has
/// the keyboard focus, so that a key press meant for another window does not choose a row.
class MenuWindow final : public DialogWindow {
 public:
  MenuWindow();

  std::function<void(int item)> onChosen;  ///< called once, with the item's ID, after the window is hidden
  std::function<void()> onClosed;          ///< called when the user closes the window without a choice

  /// Shows `menu`. If the item IDs are the same as before, updates the rows in place and keeps the focus.
  void setMenu(const Menu& menu);

 protected:
  void reject() override;
  void keyPressEvent(QKeyEvent* event) override;

 private:
  int widthForRows() const;
  void choose(int id);
  /// Moves the focus from row `index` to the next choosable row: down for `step` 1, up for -1. Wraps around.
  void moveFrom(std::ptrdiff_t index, int step);

  QScrollArea* area;
  QVBoxLayout* layout = nullptr;  ///< the layout of the rows; null before the first call of `setMenu`
  std::vector<MenuRow*> rows;
  std::ptrdiff_t last = -1;  ///< index of the row that had the focus most recently; -1: no row has had it
};

}  // namespace kestrune::dialogs
