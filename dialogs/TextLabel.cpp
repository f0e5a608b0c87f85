#include "dialogs/TextLabel.h"

#include <QEvent>
#include <QPainter>
#include <QTextLayout>
#include <algorithm>
#include <cmath>
#include <utility>

#include "dialogs/Appearance.h"
#include "dialogs/PlainText.h"

namespace kestrune::dialogs {

namespace {

constexpr int widestNaturally = 500;   // points; the limit when the view states no width
constexpr int unlimitedLines = 1000;   // more than any screen shows
constexpr qsizetype longest = 20'000;  // UTF-16 units: more than a label ever shows

}  // namespace

TextLabel::TextLabel(const View& described, QWidget* parent) : QLabel(parent), view(described) {
  setTextFormat(Qt::PlainText);
  setText(view.lineBreak == LineBreak::truncateMiddle ? readableLine(view.text) : readableText(view.text));
  if (!view.accessibilityLabel.empty()) setAccessibleName(readableLine(view.accessibilityLabel));
  view.text.clear();
  setSizePolicy(view.width > 0 ? QSizePolicy::Fixed : QSizePolicy::Preferred, QSizePolicy::Fixed);
  takeFont();
}

void TextLabel::takeFont() {
  setFont(fontFor(view.fontSize, view.fontWeight));
}

QSize TextLabel::sizeHint() const {
  int width = pixels(view.width);
  if (width == 0) {
    // Do not measure more of the text than a label can show.
    const auto natural = fontMetrics().size(0, text().left(longest)).width() + 1;
    width = std::min(natural, pixels(widestNaturally));
  }
  return {width, heightForWidth(width)};
}

int TextLabel::heightForWidth(int width) const {
  if (view.height > 0) return pixels(view.height);
  double height = 0;
  for (const auto& line : linesFor(width).all) height += line.height;
  return static_cast<int>(std::ceil(height));
}

const TextLabel::Lines& TextLabel::linesFor(int width) const {
  // A cache: a layout asks many times.
  if (std::exchange(widthOfLines, width) != width) lines = breakLines(width);
  return lines;
}

TextLabel::Lines TextLabel::breakLines(int width) const {
  const QFontMetrics metrics = fontMetrics();
  const bool single = view.lineBreak == LineBreak::truncateMiddle;
  QString whole = single ? elidedInTheMiddle(text(), metrics, width) : text().left(longest);
  bool complete = whole == text();
  whole.replace(QLatin1Char('\n'), QChar::LineSeparator);

  QTextOption option;
  option.setWrapMode(single ? QTextOption::NoWrap : QTextOption::WrapAtWordBoundaryOrAnywhere);
  QTextLayout layout(whole, font());
  layout.setTextOption(option);
  const int most = view.maximumLines > 0 ? view.maximumLines : unlimitedLines;
  std::vector<Line> broken;
  layout.beginLayout();
  for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
    line.setLineWidth(width);
    QString part = whole.mid(line.textStart(), line.textLength()).remove(QChar::LineSeparator);
    const bool more = line.textStart() + line.textLength() < whole.size();
    const bool last = static_cast<int>(broken.size()) + 1 == most;
    if (last && more) {
      part = whole.mid(line.textStart()).replace(QChar::LineSeparator, QLatin1Char(' '));
      part = metrics.elidedText(part, Qt::ElideRight, width);
      complete = false;
    }
    broken.push_back({part, line.height(), line.ascent()});
    if (last) break;
  }
  layout.endLayout();
  if (broken.empty()) broken.push_back({QString(), static_cast<double>(metrics.height()), 0});
  return {std::move(broken), complete};
}

void TextLabel::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setPen(colorFor(view.textColor, palette()));
  const QFontMetricsF metrics(font());
  double top = 0;
  for (const auto& line : linesFor(width()).all) {
    const double free = width() - metrics.horizontalAdvance(line.text);
    const double left = view.textAlignment == TextAlignment::center ? free / 2 : isRightToLeft() ? free : 0;
    painter.drawText(QPointF(left, top + line.ascent), line.text);
    top += line.height;
  }
}

void TextLabel::resizeEvent(QResizeEvent* event) {
  QLabel::resizeEvent(event);
  setToolTip(linesFor(width()).complete ? QString() : toolTipText(text()));
}

void TextLabel::changeEvent(QEvent* event) {
  QLabel::changeEvent(event);
  if (event->type() == QEvent::ApplicationFontChange) takeFont();
  if (event->type() == QEvent::FontChange) {
    widthOfLines = 0;
    updateGeometry();
  }
}

}  // namespace kestrune::dialogs
