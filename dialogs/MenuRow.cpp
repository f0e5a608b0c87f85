#include "dialogs/MenuRow.h"

#include <QAccessibleWidget>
#include <QEvent>
#include <QKeyEvent>
#include <QPainter>
#include <QStyleOptionMenuItem>
#include <algorithm>
#include <utility>

#include "dialogs/Appearance.h"
#include "dialogs/PlainText.h"
#include "text/Text.h"

namespace kestrune::dialogs {

namespace {

// Points.
constexpr double ordinarySize = 13;
constexpr double beforeKeys = 16;

/// Style options that draw a row like an item in the desktop's menus.
QStyleOptionMenuItem menuOption(const QWidget& row) {
  QStyleOptionMenuItem option;
  option.initFrom(&row);
  option.menuItemType = QStyleOptionMenuItem::Normal;
  option.menuHasCheckableItems = true;
  option.maxIconWidth = 0;
  option.menuRect = row.rect();
  option.font = row.font();
  return option;
}

/// Sets the text colour in each role from which a style may take it.
void setTextColor(QStyleOptionMenuItem& option, const QColor& color) {
  for (const auto role : {QPalette::Text, QPalette::WindowText, QPalette::ButtonText}) {
    option.palette.setColor(role, color);
  }
}

int widthOf(const QWidget& row, const QString& title) {
  return row.fontMetrics().size(Qt::TextSingleLine, title).width();
}

QSize sizeFor(const QWidget& row, QStyleOptionMenuItem option, const QString& title) {
  const QSize content(widthOf(row, title), row.fontMetrics().height());
  // Breeze measures `option.text` itself.
  option.text.prepend(withoutMnemonics(title));
  // Some styles add the width of the shortcut, others leave that to QMenu.
  const int keys = std::exchange(option.reservedShortcutWidth, 0);
  return row.style()->sizeFromContents(QStyle::CT_MenuItem, &option, content, &row) +
         QSize(keys > 0 ? keys + pixels(beforeKeys) : 0, 0);
}

/// The title, elided to the width that the style leaves for it.
QString elided(const QWidget& row, const QStyleOptionMenuItem& option, const QString& title) {
  // Measure with the full title: with a shorter one, the style's minimum width might apply.
  const int missing = sizeFor(row, option, title).width() - row.width();
  if (missing <= 0) return title;
  return row.fontMetrics().elidedText(title, Qt::ElideRight, std::max(0, widthOf(row, title) - missing));
}

void tellWhatIsLeftOut(QWidget& row, const QStyleOptionMenuItem& option, const QString& title) {
  row.setToolTip(elided(row, option, title) == title ? QString() : toolTipText(title));
}

QString titleOf(const MenuItem& item) {
  return QString::fromStdString(displayRow(item.title));
}

/// A MenuButton, for screen readers.
class AccessibleRow final : public QAccessibleWidget {
 public:
  explicit AccessibleRow(MenuButton& button) : QAccessibleWidget(&button), row(button) {}

  QAccessible::Role role() const override {
    return row.isCheckable() ? QAccessible::CheckBox : QAccessible::PushButton;
  }
  QString text(QAccessible::Text kind) const override {
    return kind == QAccessible::Name ? row.name() : QAccessibleWidget::text(kind);
  }
  QAccessible::State state() const override {
    QAccessible::State state = QAccessibleWidget::state();
    state.checkable = row.isCheckable();
    state.checked = row.isChecked();
    return state;
  }
  QStringList actionNames() const override {
    if (!row.isEnabled()) return {};
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
  MenuButton& row;
};

QAccessibleInterface* accessibleRow(const QString&, QObject* object) {
  if (auto* const row = dynamic_cast<MenuButton*>(object)) return new AccessibleRow(*row);
  if (const auto* const frame = qobject_cast<QFrame*>(object); frame && frame->frameShape() == QFrame::HLine)
    return new QAccessibleWidget(static_cast<QWidget*>(object), QAccessible::Separator);
  return nullptr;
}

}  // namespace

MenuRowKind kindOf(const MenuItem& item, const MenuItem* previous) {
  if (item.isSeparator) return MenuRowKind::separator;
  if (item.enabled || !item.action.empty()) return MenuRowKind::command;
  return previous == nullptr || previous->isSeparator ? MenuRowKind::heading : MenuRowKind::label;
}

QKeySequence keysOf(const MenuItem& item) {
  const QString text = QString::fromStdString(item.keyEquivalent);
  if (text.size() != 1) return {};
  const QChar key = text.front();
  Qt::KeyboardModifiers modifiers = Qt::ControlModifier;
  if (key.isUpper()) modifiers |= Qt::ShiftModifier;
  return {QKeyCombination(modifiers, static_cast<Qt::Key>(key.toUpper().unicode()))};
}

// --- MenuLabel

MenuLabel::MenuLabel() {
  setTextFormat(Qt::PlainText);
  setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

void MenuLabel::setItem(const MenuItem& item, MenuRowKind kindNow) {
  kind = kindNow;
  setFont(fontFor(ordinarySize, kind == MenuRowKind::heading ? FontWeight::semibold : FontWeight::regular));
  setText(titleOf(item));
  tellWhatIsLeftOut(*this, option(), text());
}

QStyleOptionMenuItem MenuLabel::option() const {
  QStyleOptionMenuItem made = menuOption(*this);
  // Dimmed, but less than a disabled item, because it is meant to be read.
  made.state = QStyle::State_Enabled | QStyle::State_Active;
  made.palette.setCurrentColorGroup(QPalette::Active);
  setTextColor(made, colorFor(TextColor::secondary, palette()));
  return made;
}

QSize MenuLabel::sizeHint() const {
  return sizeFor(*this, option(), text());
}

void MenuLabel::paintEvent(QPaintEvent*) {
  QStyleOptionMenuItem drawn = option();
  drawn.text = withoutMnemonics(elided(*this, drawn, text()));
  QPainter painter(this);
  style()->drawControl(QStyle::CE_MenuItem, &drawn, &painter, this);
}

void MenuLabel::resizeEvent(QResizeEvent* event) {
  QLabel::resizeEvent(event);
  tellWhatIsLeftOut(*this, option(), text());
}

void MenuLabel::changeEvent(QEvent* event) {
  QLabel::changeEvent(event);
  if (event->type() == QEvent::ApplicationFontChange) {
    setFont(fontFor(ordinarySize, kind == MenuRowKind::heading ? FontWeight::semibold : FontWeight::regular));
  }
}

// --- MenuButton

MenuButton::MenuButton() {
  // Return presses the row that has the focus. When none has, it must not press the first row.
  setAutoDefault(false);
  setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

void MenuButton::setItem(const MenuItem& item, int keyWidth) {
  title = titleOf(item);
  keyRoom = keyWidth;
  setText(withoutMnemonics(title));
  // setText removes the shortcut.
  setShortcut(keysOf(item));
  keys = shortcut().toString(QKeySequence::NativeText);
  setCheckable(item.checked.has_value());
  setChecked(item.checked.value_or(false));
  setEnabled(item.enabled);
  tellWhatIsLeftOut(*this, option(), title);
  updateGeometry();
  update();
}

QStyleOptionMenuItem MenuButton::option() const {
  QStyleOptionMenuItem made = menuOption(*this);
  if (isCheckable()) made.checkType = QStyleOptionMenuItem::NonExclusive;
  made.checked = isChecked();
  if (isEnabled()) {
    setTextColor(made, palette().color(QPalette::WindowText));
  } else {
    made.palette.setCurrentColorGroup(QPalette::Active);
    setTextColor(made, colorFor(TextColor::secondary, palette()));
    made.state |= QStyle::State_Enabled;
  }
  made.state.setFlag(QStyle::State_Selected, hasFocus() && isEnabled());
  made.state.setFlag(QStyle::State_Sunken, isDown());
  if (!keys.isEmpty()) {
    made.reservedShortcutWidth = keyRoom;
    // Styles leave room for a shortcut, which they expect after a tab.
    made.text = QLatin1Char('\t') + keys;
  }
  return made;
}

QSize MenuButton::sizeHint() const {
  return sizeFor(*this, option(), title);
}

void MenuButton::keyPressEvent(QKeyEvent* event) {
  switch (event->key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
      return click();
    case Qt::Key_Space:
      return QPushButton::keyPressEvent(event);
    default:
      // The window moves the focus: QPushButton would do it without scrolling.
      event->ignore();
  }
}

void MenuButton::enterEvent(QEnterEvent* event) {
  QPushButton::enterEvent(event);
  if (isEnabled() && isActiveWindow()) setFocus(Qt::MouseFocusReason);
}

void MenuButton::paintEvent(QPaintEvent*) {
  QStyleOptionMenuItem drawn = option();
  drawn.text.prepend(withoutMnemonics(elided(*this, drawn, title)));
  QPainter painter(this);
  style()->drawControl(QStyle::CE_MenuItem, &drawn, &painter, this);
}

void MenuButton::resizeEvent(QResizeEvent* event) {
  QPushButton::resizeEvent(event);
  tellWhatIsLeftOut(*this, option(), title);
}

void tellRowsToScreenReaders() {
  QAccessible::installFactory(&accessibleRow);
}

}  // namespace kestrune::dialogs
