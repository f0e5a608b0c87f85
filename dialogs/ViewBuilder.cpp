#include "dialogs/ViewBuilder.h"

#include <QContextMenuEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QStyleOptionFrame>
#include <QTextDocument>
#include <QTextLayout>
#include <QVBoxLayout>
#include <algorithm>
#include <limits>

#include "dialogs/Appearance.h"
#include "dialogs/PlainText.h"

namespace kestrune::dialogs {

namespace {

// The next three lengths are in points (see Appearance.h).
constexpr double largeButton = 30;
constexpr double smallestScroll = 120;   // a scroll view does not shrink below this height
constexpr double widestNaturally = 500;  // the maximum width of a label whose view states no width

constexpr qsizetype longestLabel = 20'000;  // UTF-16 units; the rest of a longer text is not laid out
constexpr int innerMargin = 2;              // pixels that QLineEdit leaves free on the left and on the right

/// Returns `text` with line breaks, so that no line is wider than `width`. If there are more than `most`
/// lines, line `most` is the last and ends with "…". A `most` of 0 means no limit.
QString brokenIntoLines(const QString& text, const QFont& font, int width, int most) {
  QTextLayout layout(QString(text).replace(QLatin1Char('\n'), QChar::LineSeparator), font);
  QTextOption option;
  option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
  layout.setTextOption(option);
  QStringList lines;
  layout.beginLayout();
  for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
    line.setLineWidth(width);
    if (lines.size() + 1 == most) {
      const auto rest = text.mid(line.textStart()).replace(QLatin1Char('\n'), QLatin1Char(' '));
      lines.append(QFontMetrics(font).elidedText(rest, Qt::ElideRight, width));
      break;
    }
    lines.append(text.mid(line.textStart(), line.textLength()).remove(QLatin1Char('\n')));
  }
  layout.endLayout();
  return lines.join(QLatin1Char('\n'));
}

/// Returns `text`, with "…" in the middle if it is wider than `width` pixels. Fast for any length.
QString elidedInTheMiddle(const QString& text, const QFontMetrics& metrics, int width) {
  // Keep only both ends of a long text, because measuring it is slow.
  constexpr qsizetype keptEnd = 1500;  // UTF-16 units
  if (text.size() <= 2 * keptEnd) return metrics.elidedText(text, Qt::ElideMiddle, width);
  const auto ends = text.first(keptEnd) + QChar(0x2026) + text.last(keptEnd);
  return metrics.elidedText(ends, Qt::ElideMiddle, width);
}

/// A QLabel that shortens a text that is too wide or has too many lines, and shows the whole text as its tool
/// tip. Screen readers get the whole text; only the painted text is shorter.
class Label final : public QLabel {
 public:
  explicit Label(const View& view) : color(view.textColor) {
    const auto across = view.textAlignment == TextAlignment::center ? Qt::AlignHCenter : Qt::AlignLeading;
    setAlignment(Qt::AlignTop | across);
    const bool single = view.lineBreak == LineBreak::truncateMiddle;
    setTextFormat(Qt::PlainText);
    setText(single ? readableLine(view.text) : readableText(view.text));
    setFont(fontFor(view.fontSize, view.fontWeight));
    if (!view.accessibilityLabel.empty()) setAccessibleName(readableLine(view.accessibilityLabel));
    const QFontMetrics metrics(font());
    const QString start = text().left(longestLabel);
    const int width = view.width > 0 ? pixels(view.width)
                                     : std::min(metrics.size(0, start).width() + 1, pixels(widestNaturally));
    shown = single ? elidedInTheMiddle(text(), metrics, width)
                   : brokenIntoLines(start, font(), width, view.maximumLines);
    const int height = std::max(metrics.size(0, shown).height(), metrics.height());
    setFixedSize(width, view.height > 0 ? pixels(view.height) : height);
    const auto joined = [](QString lines) { return lines.remove(QLatin1Char('\n')); };
    // Convert the text to HTML, because QToolTip would take some plain texts for HTML.
    if (joined(shown) != joined(text())) setToolTip(Qt::convertFromPlainText(text(), Qt::WhiteSpaceNormal));
  }

 protected:
  void paintEvent(QPaintEvent*) override {
    QPainter painter(this);
    painter.setPen(colorFor(color, palette()));
    painter.drawText(rect(), static_cast<int>(alignment()), shown);
  }

 private:
  const TextColor color;
  QString shown;
};

/// A field of one line. While it has no focus, a long value is painted with "…" in its middle.
class Field final : public QLineEdit {
 public:
  explicit Field(const View& view) {
    setMaxLength(std::numeric_limits<int>::max());
    setObjectName(QString::fromStdString(view.identifier));
    if (view.kind == ViewKind::secureTextField) setEchoMode(QLineEdit::Password);
    setText(QString::fromStdString(view.text));
    setCursorPosition(0);
    setPlaceholderText(readableLine(view.placeholder));
    setAccessibleName(view.accessibilityLabel.empty() ? placeholderText()
                                                      : readableLine(view.accessibilityLabel));
    if (view.width > 0) setFixedWidth(pixels(view.width));
    dimPlaceholder();
  }

 protected:
  // In a masked field, Qt's undo removes the whole text, and redo does not restore it. So switch undo off.
  void keyPressEvent(QKeyEvent* event) override {
    if (echoMode() == QLineEdit::Normal || !event->matches(QKeySequence::Undo))
      QLineEdit::keyPressEvent(event);
  }
  void contextMenuEvent(QContextMenuEvent* event) override {
    if (echoMode() == QLineEdit::Normal) return QLineEdit::contextMenuEvent(event);
    QMenu* const menu = createStandardContextMenu();
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->actions().constFirst()->setEnabled(false);  // the first action is Undo
    menu->popup(event->globalPos());
  }

  void changeEvent(QEvent* event) override {
    QLineEdit::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) dimPlaceholder();
  }

  void paintEvent(QPaintEvent* event) override {
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

 private:
  void dimPlaceholder() {
    // Use the text colour: with KDE's settings, PlaceholderText is black, even on a dark desktop.
    QPalette dimmed = palette();
    QColor color = dimmed.color(QPalette::Active, QPalette::Text);
    color.setAlphaF(0.5F);
    dimmed.setColor(QPalette::PlaceholderText, color);
    if (dimmed != palette()) setPalette(dimmed);
  }
};

/// A picture in the size that the view states, or else in the image's own size. It is painted from the
/// image's largest bitmap, in the screen's full resolution.
class Picture final : public QLabel {
 public:
  explicit Picture(const View& view) {
    const auto& largest = view.image->bitmaps.back();
    image = QImage(largest.rgba.data(), largest.width, largest.height, QImage::Format_RGBA8888).copy();
    setFixedSize(qRound(view.width > 0 ? view.width : view.image->width),
                 qRound(view.height > 0 ? view.height : view.image->height));
    // This pixmap is never painted. A QLabel has the accessible role of a picture only if it has a pixmap.
    setPixmap(QPixmap(1, 1));
    setAccessibleName(readableLine(view.accessibilityLabel));
  }

 protected:
  void paintEvent(QPaintEvent*) override {
    QRectF place(QPointF(), QSizeF(image.size()).scaled(size(), Qt::KeepAspectRatio));
    place.moveCenter(QRectF(rect()).center());
    QPainter painter(this);
    // Smooth only a picture that is shrunk: in an enlarged one, it would blur the edges of a QR code.
    painter.setRenderHint(QPainter::SmoothPixmapTransform,
                          image.width() > place.width() * devicePixelRatioF() + 0.5);
    painter.drawImage(place, image);
  }

 private:
  QImage image;
};

/// A vertical scroll area. It is at least as wide as its content. Its height can shrink to `smallestScroll`.
class ScrollView final : public QScrollArea {
 public:
  explicit ScrollView(const View& view) : wanted(pixels(view.width), pixels(view.height)) {
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setFrameShape(QFrame::NoFrame);
    viewport()->setAutoFillBackground(false);
    setWidgetResizable(true);
    setFocusPolicy(Qt::NoFocus);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Preferred);
    if (wanted.height() > 0) setMaximumHeight(wanted.height());
    if (view.children.empty()) return;
    QWidget* const content = buildView(view.children.front());
    setWidget(content);
    // Make `content` transparent again, because setWidget has made it opaque.
    content->setAutoFillBackground(false);
  }

  QSize sizeHint() const override {
    QSize size = widget() != nullptr ? widget()->sizeHint() : QSize(0, 0);
    if (wanted.height() > 0) size.setHeight(wanted.height());
    // Add the width of the scroll bar. Without this width, the end of every line would be hidden.
    size.setWidth(std::max(wanted.width(), size.width() + verticalScrollBar()->sizeHint().width()));
    return size;
  }
  QSize minimumSizeHint() const override {
    return {sizeHint().width(), std::min(sizeHint().height(), pixels(smallestScroll))};
  }

 private:
  const QSize wanted;
};

QWidget* buildButton(const View& view) {
  auto* const button = new QPushButton(withoutMnemonics(readableLine(view.text)));
  button->setObjectName(QString::fromStdString(view.action));
  if (!view.accessibilityLabel.empty()) button->setAccessibleName(readableLine(view.accessibilityLabel));
  button->setMinimumHeight(pixels(largeButton));
  if (view.width > 0) button->setFixedWidth(std::max(pixels(view.width), button->minimumSizeHint().width()));
  return button;
}

/// Builds a stack or a container. Both place their children one below the other. A container centres them
/// horizontally; a stack does so only if its alignment is `centerX`.
QWidget* buildColumn(const View& view) {
  auto* const column = new QWidget;
  auto* const layout = new QVBoxLayout(column);
  layout->setSpacing(pixels(view.spacing));
  layout->setContentsMargins(pixels(view.insets.left), pixels(view.insets.top), pixels(view.insets.right),
                             pixels(view.insets.bottom));
  const bool centred = view.kind == ViewKind::container || view.alignment == StackAlignment::centerX;
  const Qt::Alignment across = centred ? Qt::AlignHCenter : Qt::AlignLeading;
  for (const auto& child : view.children) {
    QWidget* const widget = buildView(child);
    // Do not align a widget that can shrink: an aligned widget would keep the height of its size hint.
    layout->addWidget(widget, 0, canShrink(*widget) ? Qt::Alignment() : across);
  }
  // Make the column larger than the view states if a picture or a large font needs more room.
  const QSize least = column->minimumSizeHint();
  if (view.width > 0) column->setFixedWidth(std::max(pixels(view.width), least.width()));
  if (canShrink(*column)) {
    if (view.height > 0) column->setMaximumHeight(pixels(view.height));
    return column;
  }
  layout->addStretch();
  if (view.height > 0) column->setFixedHeight(std::max(pixels(view.height), least.height()));
  return column;
}

}  // namespace

bool canShrink(const QWidget& widget) {
  return dynamic_cast<const QScrollArea*>(&widget) != nullptr || widget.findChild<QScrollArea*>() != nullptr;
}

QWidget* buildView(const View& view) {
  switch (view.kind) {
    case ViewKind::label:
      return new Label(view);
    case ViewKind::textField:
    case ViewKind::secureTextField:
      return new Field(view);
    case ViewKind::button:
      return buildButton(view);
    case ViewKind::image:
      return view.image ? new Picture(view) : new QWidget;
    case ViewKind::scroll:
      return new ScrollView(view);
    case ViewKind::stack:
    case ViewKind::container:
      return buildColumn(view);
  }
  return new QWidget;
}

}  // namespace kestrune::dialogs
