#include "dialogs/MessageText.h"

#include <QClipboard>
#include <QContextMenuEvent>
#include <QGuiApplication>
#include <QMenu>
#include <QMimeData>
#include <QScrollBar>
#include <QStyle>
#include <QTextDocumentFragment>
#include <algorithm>

#include "dialogs/PlainText.h"

namespace kestrune::dialogs {

namespace {

constexpr qsizetype mostForLabel = 2000;      // UTF-16 units; QLabel lays out all of a text, however long
constexpr qsizetype measuredLength = 20'000;  // UTF-16 units: more than any screen shows
constexpr int roomForRounding = 2;  // pixels; QFontMetrics and the layout measure a little differently
constexpr int fewestLines = 4;

/// The width of the text without wrapping, at most `most`.
int naturalWidth(const QString& text, const QFontMetrics& metrics, int most) {
  const int width = metrics.size(Qt::TextExpandTabs, text.left(measuredLength)).width() + roomForRounding;
  return std::max(1, std::min(width, most));
}

/// The size of the text in lines of this width. A line breaks between words, and anywhere with `flags`
/// Qt::TextWrapAnywhere.
QSize wrappedSize(const QString& text, const QFontMetrics& metrics, int width, int flags = 0) {
  const QRect unlimited(0, 0, width, QWIDGETSIZE_MAX);
  flags |= static_cast<int>(Qt::TextWordWrap) | Qt::TextExpandTabs;
  return metrics.boundingRect(unlimited, flags, text.left(measuredLength)).size();
}

}  // namespace

ShortText* ShortText::make(const QString& text, const QFont& font, int most) {
  if (text.size() > mostForLabel) return nullptr;
  const QFontMetrics metrics(font);
  const int width = naturalWidth(text, metrics, most);
  return wrappedSize(text, metrics, width).width() <= width ? new ShortText(text, font, width) : nullptr;
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

  const QString broken = withLongLinesBroken(text);
  setPlainText(broken);

  const int around = 2 * (frameWidth() + static_cast<int>(document()->documentMargin()));
  const int beside = around + style()->pixelMetric(QStyle::PM_ScrollBarExtent, nullptr, this);
  const int width = naturalWidth(broken, fontMetrics(), room.width() - beside);
  const int height = wrappedSize(broken, fontMetrics(), width, Qt::TextWrapAnywhere).height() + around;
  preferred = {width + beside, std::max(std::min(height, room.height()), fewestHeight())};
}

int LongText::fewestHeight() const {
  return fewestLines * fontMetrics().lineSpacing();
}

QSize LongText::minimumSizeHint() const {
  return {std::min(preferred.width(), 3 * fewestHeight()), fewestHeight()};
}

QMimeData* LongText::createMimeDataFromSelection() const {
  auto* const copied = new QMimeData;
  copied->setText(withoutAddedBreaks(textCursor().selection().toPlainText()));
  return copied;
}

}  // namespace kestrune::dialogs
