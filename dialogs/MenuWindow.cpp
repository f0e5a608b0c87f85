#include "dialogs/MenuWindow.h"

#include <QKeyEvent>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>
#include <algorithm>
#include <utility>

#include "dialogs/Appearance.h"

namespace kestrune::dialogs {

namespace {

// The sizes below are in points.
constexpr double leastWidth = 260;
constexpr double largestWidth = 520;
constexpr double edge = 6;  // space above the first row and below the last row

/// A scroll area that does not handle key events but leaves them to the window.
class Area final : public QScrollArea {
 public:
  using QScrollArea::QScrollArea;

 protected:
  void keyPressEvent(QKeyEvent* event) override { event->ignore(); }
};

}  // namespace

MenuWindow::MenuWindow() : DialogWindow(nullptr), area(new Area) {
  setName(QString());
  setFocusPolicy(Qt::StrongFocus);
  setMinimumWidth(pixels(leastWidth));
  auto* const whole = new QVBoxLayout(this);
  whole->setContentsMargins(0, 0, 0, 0);
  area->setFrameShape(QFrame::NoFrame);
  area->setFocusPolicy(Qt::NoFocus);
  area->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  area->setWidgetResizable(true);
  area->viewport()->setAutoFillBackground(false);
  whole->addWidget(area);
}

void MenuWindow::setMenu(const Menu& menu) {
  const bool isNew = rows.empty() ||
                     !std::equal(rows.begin(), rows.end(), menu.items.begin(), menu.items.end(),
                                 [](const MenuRow* row, const MenuItem& item) { return row->id == item.id; });
  QWidget* const content = isNew ? new QWidget : nullptr;
  if (isNew) {
    layout = new QVBoxLayout(content);
    layout->setContentsMargins(0, pixels(edge), 0, pixels(edge));
    layout->setSpacing(0);
    rows.clear();
    last = -1;
    for (const auto& item : menu.items) {
      auto* const row = new MenuRow(item.id);
      connect(row, &QPushButton::clicked, this, [this, row] { choose(row->id); });
      layout->addWidget(row);
      rows.push_back(row);
    }
    layout->addStretch();
  }
  int keyWidth = 0;
  for (const auto& item : menu.items) {
    const QString keys = keysOf(item).toString(QKeySequence::NativeText);
    keyWidth = std::max(keyWidth, fontMetrics().horizontalAdvance(keys));
  }
  bool beginsSection = true;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const MenuItem& item = menu.items[i];
    if (focusWidget() == rows[i] && !item.enabled) {
      // This row becomes disabled. Qt would move the focus to the next row, and the user's next key would
      // choose that row by mistake. So give the focus to the window.
      last = static_cast<std::ptrdiff_t>(i);
      setFocus();
    }
    rows[i]->setItem(item, beginsSection, keyWidth);
    beginsSection = item.isSeparator;
  }
  // The window may grow but does not shrink: otherwise its width would jump at each change of the menu.
  if (!isNew) return resize(std::max(width(), widthForRows()), height());
  area->setWidget(content);
  content->setAutoFillBackground(false);
  setFocus();
  resize(widthForRows(), std::min(layout->sizeHint().height(), roomForWindow().height()));
}

int MenuWindow::widthForRows() const {
  const QSize wanted = layout->sizeHint();
  const QSize room = roomForWindow();
  const int bar = wanted.height() > room.height() ? area->verticalScrollBar()->sizeHint().width() : 0;
  return std::min(std::clamp(wanted.width(), pixels(leastWidth), pixels(largestWidth)) + bar, room.width());
}

void MenuWindow::choose(int id) {
  if (!onChosen) return;
  hide();
  std::exchange(onChosen, nullptr)(id);
}

void MenuWindow::reject() {
  if (!onChosen) return;
  onChosen = nullptr;
  hide();
  onClosed();
}

void MenuWindow::keyPressEvent(QKeyEvent* event) {
  const auto count = static_cast<std::ptrdiff_t>(rows.size());
  const auto focused = std::find(rows.begin(), rows.end(), focusWidget());
  if (focused != rows.end()) last = focused - rows.begin();
  switch (event->key()) {
    case Qt::Key_Down:
      return moveFrom(last, 1);
    case Qt::Key_Up:
      return moveFrom(last < 0 ? count : last, -1);
    case Qt::Key_Home:
      return moveFrom(-1, 1);
    case Qt::Key_End:
      return moveFrom(count, -1);
    default:
      if (!scrollByKey(*area->verticalScrollBar(), *event)) DialogWindow::keyPressEvent(event);
  }
}

void MenuWindow::moveFrom(std::ptrdiff_t index, int step) {
  const auto first =
      std::find_if(rows.begin(), rows.end(), [](const MenuRow* row) { return row->isEnabled(); });
  if (first == rows.end()) return;
  const auto count = static_cast<std::ptrdiff_t>(rows.size());
  MenuRow* row = nullptr;
  do {
    index = (index + step + count) % count;
    row = rows[static_cast<std::size_t>(index)];
  } while (!row->isEnabled());
  row->setFocus(Qt::TabFocusReason);
  area->ensureWidgetVisible(row, 0, row->height());
  // The rows above the first choosable row cannot get the focus. Scroll up, so that they can be read.
  if (row == *first) area->verticalScrollBar()->triggerAction(QAbstractSlider::SliderToMinimum);
}

}  // namespace kestrune::dialogs
