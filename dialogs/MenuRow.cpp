#include "dialogs/MenuRow.h"

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

// The sizes below are in points.
constexpr double beforeKeys = 16;
constexpr double separatorHeight = 9;

}  // namespace

QKeySequence keysOf(const MenuItem& item) {
  const QString text = QString::fromStdString(item.keyEquivalent);
  if (text.size() != 1) return {};
  const QChar key = text.front();
  Qt::KeyboardModifiers modifiers = Qt::ControlModifier;
  if (key.isUpper()) modifiers |= Qt::ShiftModifier;
  return {QKeyCombination(modifiers, static_cast<Qt::Key>(key.toUpper().unicode()))};
}

MenuRow::MenuRow(int itemId) : id(itemId) {
  // Without this, Return would press the first row when no row has the focus.
  setAutoDefault(false);
  setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

void MenuRow::setItem(const MenuItem& item, bool beginsSection, int keyWidth) {
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
  setText(withoutMnemonics(wholeTitle));
  // Set the shortcut after the text, because setText removes it.
  setShortcut(keysOf(item));
  setCheckable(item.checked.has_value());
  setChecked(item.checked.value_or(false));
  setEnabled(item.enabled && !item.isSeparator);
  setFocusPolicy(item.isSeparator || isLabel ? Qt::NoFocus : Qt::StrongFocus);
  setToolTip(elidedTitle() == wholeTitle ? QString() : toolTipText(wholeTitle));
  updateGeometry();
  update();
}

/// Returns the style options of the row. Their text is a tab and the shortcut, because widget styles
/// right-align what follows a tab; without a shortcut it is empty. The caller puts the title in front of it.
QStyleOptionMenuItem MenuRow::option() const {
  QStyleOptionMenuItem made;
  made.initFrom(this);
  made.menuItemType = accessibleRole == QAccessible::Separator ? QStyleOptionMenuItem::Separator
                                                               : QStyleOptionMenuItem::Normal;
  made.menuHasCheckableItems = true;
  made.maxIconWidth = 0;
  made.menuRect = rect();
  made.font = font();
  if (isCheckable()) made.checkType = QStyleOptionMenuItem::NonExclusive;
  made.checked = isChecked();
  if (!isEnabled()) {
    // Paint the row as enabled, with a paler text colour. Styles make disabled items too pale, but most
    // disabled rows of this menu are there to be read.
    made.state = QStyle::State_Enabled | QStyle::State_Active;
    made.palette.setCurrentColorGroup(QPalette::Active);
  }
  const QColor color = colorFor(isEnabled() ? TextColor::primary : TextColor::secondary, palette());
  // Set all three roles, because a style may take the text colour from any of them.
  for (const auto role : {QPalette::Text, QPalette::WindowText, QPalette::ButtonText})
    made.palette.setColor(role, color);
  made.state.setFlag(QStyle::State_Selected, hasFocus() && isEnabled());
  made.state.setFlag(QStyle::State_Sunken, isDown());
  if (!shortcut().isEmpty()) {
    made.reservedShortcutWidth = keyRoom;
    made.text = QLatin1Char('\t') + shortcut().toString(QKeySequence::NativeText);
  }
  return made;
}

QSize MenuRow::sizeHint() const {
  QStyleOptionMenuItem measured = option();
  if (measured.menuItemType == QStyleOptionMenuItem::Separator) return {0, pixels(separatorHeight)};
  const QSize content(fontMetrics().size(Qt::TextSingleLine, wholeTitle).width(), fontMetrics().height());
  // Put the title into `text` too, because the style Breeze measures `text` and ignores `content`.
  measured.text.prepend(withoutMnemonics(wholeTitle));
  // Some styles add the reserved width of the shortcut, others do not. So tell the style that the shortcut
  // has no width, and add the width to the style's result below.
  const int keys = std::exchange(measured.reservedShortcutWidth, 0);
  return style()->sizeFromContents(QStyle::CT_MenuItem, &measured, content, this) +
         QSize(keys > 0 ? keys + pixels(beforeKeys) : 0, 0);
}

/// Returns the title, shortened with "…" to the width that the style leaves for the title.
QString MenuRow::elidedTitle() const {
  // sizeHint measures the whole title, not the shortened one, for which it could return the style's minimum
  // width.
  const int missing = sizeHint().width() - width();
  if (missing <= 0) return wholeTitle;
  const int whole = fontMetrics().size(Qt::TextSingleLine, wholeTitle).width();
  return fontMetrics().elidedText(wholeTitle, Qt::ElideRight, std::max(0, whole - missing));
}

void MenuRow::keyPressEvent(QKeyEvent* event) {
  switch (event->key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
      return click();
    case Qt::Key_Space:
      return QPushButton::keyPressEvent(event);
    default:
      // Leave the other keys to the window, which scrolls to the row that gets the focus. With its arrow
      // keys, a QPushButton would move the focus without scrolling.
      event->ignore();
  }
}

void MenuRow::enterEvent(QEnterEvent* event) {
  QPushButton::enterEvent(event);
  if (isEnabled() && isActiveWindow()) setFocus(Qt::MouseFocusReason);
}

void MenuRow::paintEvent(QPaintEvent*) {
  QStyleOptionMenuItem drawn = option();
  drawn.text.prepend(withoutMnemonics(elidedTitle()));
  QPainter painter(this);
  style()->drawControl(QStyle::CE_MenuItem, &drawn, &painter, this);
}

void MenuRow::resizeEvent(QResizeEvent* event) {
  QPushButton::resizeEvent(event);
  setToolTip(elidedTitle() == wholeTitle ? QString() : toolTipText(wholeTitle));
}

}  // namespace kestrune::dialogs
