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

/// A menu as a window, for desktops without a tray. Keys work as in a menu. No row has the focus at first, so
/// that a key meant for another window chooses nothing.
class MenuWindow final : public DialogWindow {
 public:
  MenuWindow();

  std::function<void(int item)> onChosen;  ///< the window is hidden by then
  std::function<void()> onClosed;          ///< closed without a choice

  /// Shows these rows. If the item IDs are the same as before, updates the rows in place and keeps the focus.
  void setMenu(const Menu& menu);

 protected:
  void reject() override;
  void keyPressEvent(QKeyEvent* event) override;

 private:
  int widthForRows() const;
  void choose(int id);
  /// Moves the focus from row `index` to the next one that can be chosen: down for 1, up for -1.
  void moveFrom(std::ptrdiff_t index, int step);

  QScrollArea* area;
  QVBoxLayout* layout = nullptr;  ///< of the rows; null before the first menu
  std::vector<MenuRow*> rows;
  std::ptrdiff_t last = -1;  ///< index of the row that had the focus last; -1: none
};

}  // namespace kestrune::dialogs
