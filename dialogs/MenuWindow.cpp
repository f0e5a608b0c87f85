#include "dialogs/MenuWindow.h"

#include <QAccessibleWidget>
#include <QCoreApplication>
#include <QKeyEvent>
#include <QPainter>
#include <QPushButton>
#include <QScrollBar>
#include <QStyleOptionMenuItem>
#include <QTextDocument>
#include <QVBoxLayout>
#include <algorithm>
#include <utility>

#include "dialogs/Appearance.h"
#include "dialogs/PlainText.h"
#include "text/Text.h"

namespace kestrune::dialogs {

// All five are in points (see Appearance.h). `beforeKeys`: the distance between title and shortcut.
constexpr double leastWidth = 260;
constexpr double largestWidth = 520;
constexpr double edge = 6;  // space above the first row and below the last row
constexpr double beforeKeys = 16;
constexpr double separatorHeight = 9;

static QKeySequence keysOf(const MenuItem& item) {
  const QString key = QString::fromStdString(item.keyEquivalent);
  if (key.isEmpty()) return {};
  return QKeySequence::fromString(
      (key.front().isUpper() ? QStringLiteral("Ctrl+Shift+") : QStringLiteral("Ctrl+")) + key);
}

/// A row in a menu window, painted like an item in the desktop's menus. A press does not change the check
/// mark of the row; only `setItem` changes it.
///
/// A row that cannot be chosen is not disabled in Qt. Styles make disabled items too pale, but most of these
/// rows are there to be read. And if the focused row were disabled, Qt would move the focus to the next row.
/// The user's next key press would then choose that row by mistake.
class MenuRow final : public QPushButton {
 public:
  MenuRow() {
    // While no button has the focus, Return would press the first auto-default button of the dialog.
    setAutoDefault(false);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
  }

  /// Shows `item` in this row. A label that begins a section is painted in bold, as its heading. `keyWidth`
  /// is the width of the menu's widest shortcut, in pixels.
  void setItem(const MenuItem& item, bool beginsSection, int keyWidth) {
    const bool isLabel = !item.isSeparator && !item.enabled && item.action.empty();
    accessibleRole = item.isSeparator ? QAccessible::Separator
                     : isLabel        ? QAccessible::StaticText
                     : item.checked   ? QAccessible::CheckBox
                                      : QAccessible::PushButton;
    wholeTitle = QString::fromStdString(displayRow(item.title));
    keyRoom = keyWidth;
    QFont font;
    font.setWeight(isLabel && beginsSection ? QFont::DemiBold : QFont::Normal);
    setFont(font);
    setAccessibleName(wholeTitle);
    setShortcut(keysOf(item));
    setCheckable(item.checked.has_value());
    setChecked(item.checked.value_or(false));
    setFocusPolicy(item.enabled && !item.isSeparator ? Qt::StrongFocus : Qt::NoFocus);
    updateToolTip();
    updateGeometry();
    update();
  }

  bool isChoosable() const { return focusPolicy() != Qt::NoFocus; }
  QAccessible::Role role() const { return accessibleRole; }

  QSize sizeHint() const override {
    QStyleOptionMenuItem measured = option();
    if (measured.menuItemType == QStyleOptionMenuItem::Separator) return {0, pixels(separatorHeight)};
    const QSize content(fontMetrics().size(Qt::TextSingleLine, wholeTitle).width(), fontMetrics().height());
    // Put the title into `text` too, because the style Breeze measures `text` and ignores `content`.
    measured.text.prepend(withoutMnemonics(wholeTitle));
    // Some styles add reservedShortcutWidth to the width of the row, others do not. So set it to 0 for the
    // style, and add it to the style's result below.
    const int keys = std::exchange(measured.reservedShortcutWidth, 0);
    return style()->sizeFromContents(QStyle::CT_MenuItem, &measured, content, this) +
           QSize(keys > 0 ? keys + pixels(beforeKeys) : 0, 0);
  }

  QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

 protected:
  void nextCheckState() override {}

  void keyPressEvent(QKeyEvent* event) override {
    const int key = event->key();
    if (key == Qt::Key_Return || key == Qt::Key_Enter) return click();
    if (key == Qt::Key_Space) return QPushButton::keyPressEvent(event);
    // Pass the other keys directly to the window: the scroll area would handle the arrow keys itself.
    QCoreApplication::sendEvent(window(), event);
  }

  void enterEvent(QEnterEvent* event) override {
    QPushButton::enterEvent(event);
    if (isChoosable() && isActiveWindow()) setFocus(Qt::MouseFocusReason);
  }

  void paintEvent(QPaintEvent*) override {
    QStyleOptionMenuItem drawn = option();
    drawn.text.prepend(withoutMnemonics(elidedTitle()));
    QPainter painter(this);
    style()->drawControl(QStyle::CE_MenuItem, &drawn, &painter, this);
  }

  void resizeEvent(QResizeEvent* event) override {
    QPushButton::resizeEvent(event);
    updateToolTip();
  }

 private:
  /// Returns the style options of the row. The caller must prepend the title, whole or shortened, to `text`.
  /// A shortcut stands in `text` after a tab, because widget styles right-align the part after a tab.
  QStyleOptionMenuItem option() const {
    QStyleOptionMenuItem made;
    made.initFrom(this);
    if (accessibleRole == QAccessible::Separator) made.menuItemType = QStyleOptionMenuItem::Separator;
    made.menuRect = rect();
    made.font = font();
    if (isCheckable()) made.checkType = QStyleOptionMenuItem::NonExclusive;
    made.checked = isChecked();
    const QColor color = colorFor(isChoosable() ? TextColor::primary : TextColor::secondary, palette());
    // Set all three roles, because a style may take the text colour from any of them.
    for (const auto role : {QPalette::Text, QPalette::WindowText, QPalette::ButtonText})
      made.palette.setColor(role, color);
    made.state.setFlag(QStyle::State_Selected, hasFocus() && isChoosable());
    made.state.setFlag(QStyle::State_Sunken, isDown() && isChoosable());
    if (!shortcut().isEmpty()) {
      made.reservedShortcutWidth = keyRoom;
      made.text = QLatin1Char('\t') + shortcut().toString(QKeySequence::NativeText);
    }
    return made;
  }

  /// Returns the title, shortened with "…" to the width that the style leaves for the title.
  QString elidedTitle() const {
    // sizeHint() is the size of the row with the whole title.
    const int missing = sizeHint().width() - width();
    if (missing <= 0) return wholeTitle;
    const int whole = fontMetrics().size(Qt::TextSingleLine, wholeTitle).width();
    return fontMetrics().elidedText(wholeTitle, Qt::ElideRight, std::max(0, whole - missing));
  }

  /// If the row shows a shortened title, sets the whole title as tool tip. Converts the whole title to HTML,
  /// because QToolTip would take some plain titles for HTML.
  void updateToolTip() {
    setToolTip(elidedTitle() == wholeTitle ? QString()
                                           : Qt::convertFromPlainText(wholeTitle, Qt::WhiteSpaceNormal));
  }

  QAccessible::Role accessibleRole = QAccessible::StaticText;
  QString wholeTitle;
  int keyRoom = 0;
};

/// What screen readers get to know of a row.
class AccessibleRow final : public QAccessibleWidget {
 public:
  explicit AccessibleRow(MenuRow& represented) : QAccessibleWidget(&represented), row(represented) {}

  QAccessible::Role role() const override { return row.role(); }
  QAccessible::State state() const override {
    QAccessible::State state = QAccessibleWidget::state();
    state.checkable = row.isCheckable();
    state.checked = row.isChecked();
    state.disabled = !row.isChoosable() && role() != QAccessible::StaticText;
    return state;
  }
  QStringList actionNames() const override {
    if (!row.isChoosable()) return {};
    return QStringList(row.isCheckable() ? toggleAction() : pressAction()) + QAccessibleWidget::actionNames();
  }
  void doAction(const QString& action) override {
    if (action == toggleAction() || action == pressAction()) return row.click();
    QAccessibleWidget::doAction(action);
  }
  QStringList keyBindingsForAction(const QString&) const override {
    return {row.shortcut().toString(QKeySequence::NativeText)};
  }

 private:
  MenuRow& row;
};

MenuWindow::MenuWindow(const Menu& menu) : DialogWindow(0, QString(), nullptr) {
  QAccessible::installFactory([](const QString&, QObject* object) -> QAccessibleInterface* {
    auto* const row = dynamic_cast<MenuRow*>(object);
    return row != nullptr ? new AccessibleRow(*row) : nullptr;
  });
  setFocusPolicy(Qt::ClickFocus);
  setMinimumWidth(pixels(leastWidth));
  auto* const whole = new QVBoxLayout(this);
  whole->setContentsMargins(0, 0, 0, 0);
  area->setFrameShape(QFrame::NoFrame);
  area->setFocusPolicy(Qt::NoFocus);
  area->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  area->setWidgetResizable(true);
  area->viewport()->setAutoFillBackground(false);
  whole->addWidget(area);

  auto* const content = new QWidget;
  auto* const layout = new QVBoxLayout(content);
  layout->setContentsMargins(0, pixels(edge), 0, pixels(edge));
  layout->setSpacing(0);
  for (const auto& item : menu.items) {
    auto* const row = new MenuRow;
    connect(row, &QPushButton::clicked, this, [this, row, id = item.id] {
      if (!row->isChoosable() || isHidden()) return;
      hide();
      onChosen(id);
    });
    layout->addWidget(row);
    rows.push_back(row);
  }
  layout->addStretch();
  area->setWidget(content);
  content->setAutoFillBackground(false);
  setMenu(menu);
  setFocus();
  resize(widthForRows(), std::min(content->sizeHint().height(), roomForWindow().height()));
}

void MenuWindow::setMenu(const Menu& menu) {
  int keyWidth = 0;
  for (const auto& item : menu.items) {
    const QString keys = keysOf(item).toString(QKeySequence::NativeText);
    keyWidth = std::max(keyWidth, fontMetrics().horizontalAdvance(keys));
  }
  bool beginsSection = true;
  for (std::size_t i = 0; i < rows.size() && i < menu.items.size(); ++i) {
    rows[i]->setItem(menu.items[i], beginsSection, keyWidth);
    beginsSection = menu.items[i].isSeparator;
  }
  // The window never becomes narrower: otherwise its width would jump at each change of the menu.
  resize(std::max(width(), widthForRows()), height());
}

int MenuWindow::widthForRows() const {
  const QSize wanted = area->widget()->sizeHint();
  const QSize room = roomForWindow();
  const int bar = wanted.height() > room.height() ? area->verticalScrollBar()->sizeHint().width() : 0;
  return std::min(std::clamp(wanted.width(), pixels(leastWidth), pixels(largestWidth)) + bar, room.width());
}

void MenuWindow::keyPressEvent(QKeyEvent* event) {
  const int key = event->key();
  if (key == Qt::Key_Home || key == Qt::Key_End) setFocus();
  if (key == Qt::Key_Home || key == Qt::Key_Down) return moveFocus(true);
  if (key == Qt::Key_End || key == Qt::Key_Up) return moveFocus(false);
  area->verticalScrollBar()->event(event);  // accepts the event if the key scrolls
  if (!event->isAccepted()) DialogWindow::keyPressEvent(event);
}

void MenuWindow::moveFocus(bool next) {
  if (!focusNextPrevChild(next)) return;
  QWidget* const row = focusWidget();
  area->ensureWidgetVisible(row, 0, row->height());
  // When the first choosable row has got the focus, scroll to the top. The rows above it cannot get the
  // focus, so the arrow keys would never scroll to them.
  const auto first = std::ranges::find_if(rows, &MenuRow::isChoosable);
  if (row == *first) area->verticalScrollBar()->triggerAction(QAbstractSlider::SliderToMinimum);
}

}  // namespace kestrune::dialogs
