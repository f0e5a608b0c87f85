#include "dialogs/MessageText.h"

#include <QClipboard>
#include <QContextMenuEvent>
#include <QGuiApplication>
#include <QMenu>
#include <QMimeData>
#include <QScrollBar>
#include <QStyle>
#include <QTextBlock>
#include <algorithm>

#include "dialogs/PlainText.h"

namespace kestrune::dialogs {

namespace {

constexpr qsizetype mostForLabel = 2000;   // UTF-16 units; QLabel lays out all of a text, however long
constexpr int roomForRounding = 2;         // pixels; QFontMetrics and the layout measure a little differently
constexpr int measuredLines = 200;         // the width is measured on these first lines only
constexpr qsizetype measuredLength = 300;  // UTF-16 units: wider than any window
constexpr int fewestLines = 4;
constexpr int continuation = 1;  // user state of a block that continues the one before

/// Calls `take` with each line, until it returns false.
template <typename Take>
void forEachLine(const QString& text, Take take) {
  for (qsizetype begin = 0; begin <= text.size();) {
    auto end = text.indexOf(QLatin1Char('\n'), begin);
    if (end < 0) end = text.size();
    if (!take(text.mid(begin, end - begin))) return;
    begin = end + 1;
  }
}

int lineWidth(const QString& line, const QFontMetrics& metrics) {
  return metrics.size(Qt::TextExpandTabs | Qt::TextSingleLine, line).width() + roomForRounding;
}

/// The width of the text without wrapping, at most `most`.
int naturalWidth(const QString& text, const QFontMetrics& metrics, int most) {
  int widest = 1;
  int lines = 0;
  forEachLine(text, [&](const QString& line) {
    widest = std::max(widest, lineWidth(line.left(measuredLength), metrics));
    return widest < most && ++lines < measuredLines;
  });
  return std::max(1, std::min(widest, most));
}

/// The approximate height of the text when its lines break anywhere; stops counting above `most`.
int wrappedHeight(const QString& text, const QFontMetrics& metrics, int width, int most) {
  int height = 0;
  forEachLine(text, [&](const QString& line) {
    height += (1 + (lineWidth(line, metrics) - 1) / width) * metrics.lineSpacing();
    return height < most;
  });
  return height;
}

}  // namespace

ShortText* ShortText::make(const QString& text, const QFont& font, int most) {
  if (text.size() > mostForLabel) return nullptr;
  const QFontMetrics metrics(font);
  const int width = naturalWidth(text, metrics, most);
  const QRect unlimited(0, 0, width, QWIDGETSIZE_MAX);
  const auto wrapped = metrics.boundingRect(unlimited, Qt::TextWordWrap | Qt::TextExpandTabs, text);
  return wrapped.width() <= width ? new ShortText(text, font, width) : nullptr;
}

ShortText::ShortText(const QString& text, const QFont& font, int wanted) : QLabel(text), width(wanted) {
  setFont(font);
  setTextFormat(Qt::PlainText);
  setWordWrap(true);
  setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  setAlignment(Qt::AlignLeading | Qt::AlignTop);
  setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void ShortText::contextMenuEvent(QContextMenuEvent* event) {
  // QLabel has a context menu for links only.
  constexpr auto context = "QWidgetTextControl";
  const auto titled = [](const char* word, QKeySequence::StandardKey key) {
    return QCoreApplication::translate(context, word) + QLatin1Char('\t') +
           QKeySequence(key).toString(QKeySequence::NativeText);
  };
  auto* const menu = new QMenu(this);
  menu->setAttribute(Qt::WA_DeleteOnClose);
  menu->addAction(titled("&Copy", QKeySequence::Copy), this,
                  [this] {
                    QGuiApplication::clipboard()->setText(
                        selectedText().replace(QChar::ParagraphSeparator, QLatin1Char('\n')));
                  })
      ->setEnabled(hasSelectedText());
  menu->addSeparator();
  menu->addAction(titled("Select All", QKeySequence::SelectAll), this,
                  [this] { setSelection(0, static_cast<int>(text().size())); });
  menu->popup(event->globalPos());
}

QSize ShortText::sizeHint() const {
  return {width, heightForWidth(width)};
}

LongText::LongText(const QString& text, QSize room) {
  setReadOnly(true);
  setUndoRedoEnabled(false);
  setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  setTabChangesFocus(true);
  setWordWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);

  const BrokenText broken = withLongLinesBroken(text);
  setPlainText(broken.text);
  for (const int number : broken.continuations)
    document()->findBlockByNumber(number).setUserState(continuation);

  const int around = 2 * (frameWidth() + static_cast<int>(document()->documentMargin()));
  const int beside = around + style()->pixelMetric(QStyle::PM_ScrollBarExtent, nullptr, this);
  const int width = naturalWidth(text, fontMetrics(), room.width() - beside);
  const int height = wrappedHeight(broken.text, fontMetrics(), width, room.height()) + around;
  preferred = {width + beside, std::max(std::min(height, room.height()), fewestHeight())};
}

int LongText::fewestHeight() const {
  return fewestLines * fontMetrics().lineSpacing();
}

QSize LongText::minimumSizeHint() const {
  return {std::min(preferred.width(), 3 * fewestHeight()), fewestHeight()};
}

QMimeData* LongText::createMimeDataFromSelection() const {
  const QTextCursor cursor = textCursor();
  QString copy;
  QTextBlock block = document()->findBlock(cursor.selectionStart());
  for (bool first = true; block.isValid() && block.position() <= cursor.selectionEnd();
       block = block.next()) {
    const int from = std::max(cursor.selectionStart() - block.position(), 0);
    const int to = std::min(cursor.selectionEnd() - block.position(), block.length() - 1);
    if (!first && block.userState() != continuation) copy += QLatin1Char('\n');
    copy += block.text().mid(from, to - from);
    first = false;
  }
  auto* const copied = new QMimeData;
  copied->setText(copy);
  return copied;
}

}  // namespace kestrune::dialogs
