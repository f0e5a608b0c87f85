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

// Points.
constexpr double leastWidth = 260;
constexpr double largestWidth = 520;
constexpr double edge = 6;  // above the first row and below the last
constexpr double separatorHeight = 9;

/// A scroll area that leaves key events to the window.
class Area final : public QScrollArea {
 public:
  using QScrollArea::QScrollArea;

 protected:
  void keyPressEvent(QKeyEvent* event) override { event->ignore(); }
};

void fill(QWidget* widget, MenuRowKind kind, const MenuItem& item, int keyWidth) {
  if (kind == MenuRowKind::command) {
    static_cast<MenuButton*>(widget)->setItem(item, keyWidth);
  } else if (kind != MenuRowKind::separator) {
    static_cast<MenuLabel*>(widget)->setItem(item, kind);
  }
}

/// The width of the widest shortcut, in pixels.
int keyWidthOf(const Menu& menu, const QFontMetrics& metrics) {
  int width = 0;
  for (const auto& item : menu.items) {
    width = std::max(width, metrics.horizontalAdvance(keysOf(item).toString(QKeySequence::NativeText)));
  }
  return width;
}

MenuRowKind kindAt(const Menu& menu, std::size_t index) {
  return kindOf(menu.items[index], index > 0 ? &menu.items[index - 1] : nullptr);
}

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
  const bool same = std::equal(rows.begin(), rows.end(), menu.items.begin(), menu.items.end(),
                               [](const Row& row, const MenuItem& item) { return row.id == item.id; });
  if (same && !rows.empty()) {
    follow(menu);
  } else {
    rebuild(menu);
  }
}

void MenuWindow::rebuild(const Menu& menu) {
  auto* const content = new QWidget;
  layout = new QVBoxLayout(content);
  layout->setContentsMargins(0, pixels(edge), 0, pixels(edge));
  layout->setSpacing(0);
  rows.clear();
  lost = -1;
  const int keyWidth = keyWidthOf(menu, fontMetrics());
  for (std::size_t i = 0; i < menu.items.size(); ++i) {
    const MenuItem& item = menu.items[i];
    const MenuRowKind kind = kindAt(menu, i);
    QWidget* const widget = makeRow(kind, item.id);
    fill(widget, kind, item, keyWidth);
    layout->addWidget(widget);
    rows.push_back({item.id, kind, widget});
  }
  layout->addStretch();
  area->setWidget(content);
  content->setAutoFillBackground(false);
  setFocus();

  resize(widthForRows(), std::min(layout->sizeHint().height(), roomForWindow().height()));
}

void MenuWindow::follow(const Menu& menu) {
  const int keyWidth = keyWidthOf(menu, fontMetrics());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    Row& row = rows[i];
    const MenuItem& item = menu.items[i];
    const MenuRowKind kind = kindAt(menu, i);
    const bool choosable = kind == MenuRowKind::command && item.enabled;
    if (focusWidget() == row.widget && !choosable) {
      // Qt would focus the next row, and a key would choose a row that the user did not mean.
      lost = static_cast<std::ptrdiff_t>(i);
      setFocus();
    }
    const auto isLabel = [](MenuRowKind each) {
      return each == MenuRowKind::label || each == MenuRowKind::heading;
    };
    if (kind != row.kind && !(isLabel(kind) && isLabel(row.kind))) {
      QWidget* const widget = makeRow(kind, row.id);
      delete layout->replaceWidget(row.widget, widget);
      // Keep the place in the tab order, and among the children for screen readers.
      if (i > 0) setTabOrder(rows[i - 1].widget, widget);
      if (i + 1 < rows.size()) widget->stackUnder(rows[i + 1].widget);
      row.widget->deleteLater();
      row.widget = widget;
      widget->show();
    }
    row.kind = kind;
    fill(row.widget, kind, item, keyWidth);
  }
  // Never shrink: the window would jump with each change.
  resize(std::max(width(), widthForRows()), height());
}

QWidget* MenuWindow::makeRow(MenuRowKind kind, int id) {
  switch (kind) {
    case MenuRowKind::heading:
    case MenuRowKind::label:
      return new MenuLabel;
    case MenuRowKind::separator: {
      auto* const line = new QFrame;
      line->setFrameStyle(static_cast<int>(QFrame::HLine) | QFrame::Sunken);
      line->setFixedHeight(pixels(separatorHeight));
      return line;
    }
    case MenuRowKind::command:
      break;
  }
  auto* const button = new MenuButton;
  connect(button, &QPushButton::clicked, this, [this, id] { choose(id); });
  return button;
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
  QScrollBar* const bar = area->verticalScrollBar();
  const auto count = static_cast<std::ptrdiff_t>(rows.size());
  switch (event->key()) {
    case Qt::Key_Down:
      return move(1);
    case Qt::Key_Up:
      return move(-1);
    case Qt::Key_Home:
      return moveFrom(-1, 1);
    case Qt::Key_End:
      return moveFrom(count, -1);
    case Qt::Key_PageDown:
      return bar->triggerAction(QAbstractSlider::SliderPageStepAdd);
    case Qt::Key_PageUp:
      return bar->triggerAction(QAbstractSlider::SliderPageStepSub);
    default:
      DialogWindow::keyPressEvent(event);
  }
}

void MenuWindow::move(int step) {
  const auto marked =
      std::find_if(rows.begin(), rows.end(), [this](const Row& row) { return row.widget == focusWidget(); });
  const auto from = marked != rows.end() ? marked - rows.begin() : lost;
  const auto count = static_cast<std::ptrdiff_t>(rows.size());
  moveFrom(from < 0 && step < 0 ? count : from, step);
}

void MenuWindow::moveFrom(std::ptrdiff_t index, int step) {
  const auto choosable = [](const Row& row) {
    return row.kind == MenuRowKind::command && row.widget->isEnabled();
  };
  const auto first = std::find_if(rows.begin(), rows.end(), choosable);
  if (first == rows.end()) return;
  const auto count = static_cast<std::ptrdiff_t>(rows.size());
  do {
    index = (index + step + count) % count;
  } while (!choosable(rows[static_cast<std::size_t>(index)]));
  QWidget* const row = rows[static_cast<std::size_t>(index)].widget;
  row->setFocus(Qt::TabFocusReason);
  area->ensureWidgetVisible(row, 0, row->height());
  // The rows above the first choosable one cannot have the focus: scroll up so that they can be read.
  if (row == first->widget) area->verticalScrollBar()->triggerAction(QAbstractSlider::SliderToMinimum);
}

}  // namespace kestrune::dialogs
