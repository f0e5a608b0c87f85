#include "dialogs/TextField.h"

#include <QEvent>
#include <QPainter>
#include <QStyleOptionFrame>
#include <limits>

#include "dialogs/Appearance.h"
#include "dialogs/PlainText.h"

namespace kestrune::dialogs {

namespace {

constexpr float placeholderShare = 0.5;  // alpha of the text colour
constexpr int innerMargin = 2;           // pixels that QLineEdit leaves free on each side

}  // namespace

TextField::TextField(const View& view, QWidget* parent) : QLineEdit(parent), points(view.width) {
  setMaxLength(std::numeric_limits<int>::max());
  if (view.kind == ViewKind::secureTextField) setEchoMode(QLineEdit::Password);
  setText(QString::fromStdString(view.text));
  setCursorPosition(0);
  setPlaceholderText(readableLine(view.placeholder));
  setSizePolicy(points > 0 ? QSizePolicy::Fixed : QSizePolicy::Expanding, QSizePolicy::Fixed);
  dimPlaceholder();
}

void TextField::dimPlaceholder() {
  // Qt's palette from KDE's settings has a black PlaceholderText, also on a dark desktop.
  QPalette dimmed = palette();
  QColor color = dimmed.color(QPalette::Active, QPalette::Text);
  color.setAlphaF(placeholderShare);
  dimmed.setColor(QPalette::PlaceholderText, color);
  if (dimmed != palette()) setPalette(dimmed);
}

void TextField::changeEvent(QEvent* event) {
  QLineEdit::changeEvent(event);
  if (event->type() == QEvent::PaletteChange) dimPlaceholder();
}

QSize TextField::sizeHint() const {
  QSize size = QLineEdit::sizeHint();
  if (points > 0) size.setWidth(pixels(points));
  return size;
}

QSize TextField::minimumSizeHint() const {
  return points > 0 ? sizeHint() : QLineEdit::minimumSizeHint();
}

void TextField::paintEvent(QPaintEvent* event) {
  QStyleOptionFrame option;
  initStyleOption(&option);
  const QRect inside = style()
                           ->subElementRect(QStyle::SE_LineEditContents, &option, this)
                           .adjusted(innerMargin, 0, -innerMargin, 0);
  if (hasFocus() || echoMode() != QLineEdit::Normal) return QLineEdit::paintEvent(event);
  const QString shown = elidedInTheMiddle(text(), fontMetrics(), inside.width());
  if (shown == text()) return QLineEdit::paintEvent(event);

  QPainter painter(this);
  style()->drawPrimitive(QStyle::PE_PanelLineEdit, &option, &painter, this);
  painter.setPen(palette().color(QPalette::Text));
  painter.drawText(inside, Qt::AlignLeading | Qt::AlignVCenter | Qt::TextSingleLine, shown);
}

}  // namespace kestrune::dialogs
