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

/// A menu as a window, for a desktop that shows no tray. Walked through like a menu; nothing is marked before
/// somebody walks, so that a key meant for another window chooses nothing.
class MenuWindow final : public DialogWindow {
 public:
  MenuWindow();

  std::function<void(int item)> onChosen;  ///< the window is hidden by then
  std::function<void()> onClosed;          ///< without a choice

  /// Shows these rows. Those that were there before stay where they are, and so does the mark.
  void setMenu(const Menu& menu);

 protected:
  void reject() override;
  void keyPressEvent(QKeyEvent* event) override;

 private:
  struct Row {
    int id;
    MenuRowKind kind;
    QWidget* widget;
  };

  void rebuild(const Menu& menu);
  void follow(const Menu& menu);
  QWidget* makeRow(MenuRowKind kind, int id);
  int widthForRows() const;
  void choose(int id);
  /// Marks the next row that can be chosen, down from the one that is marked, or up.
  void move(int step);
  void moveFrom(std::ptrdiff_t index, int step);

  QScrollArea* area;
  QVBoxLayout* layout = nullptr;  ///< of the rows; none before there is a menu
  std::vector<Row> rows;
  std::ptrdiff_t lost = -1;  ///< the row that was marked when it ceased to be one to choose; -1: none
};

}  // namespace kestrune::dialogs
