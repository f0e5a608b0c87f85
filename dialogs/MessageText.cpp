#include "dialogs/MessageText.h"

#include <QClipboard>
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

constexpr qsizetype mostForLabel = 2000;      // UTF-16 units; QLabel is slow with a longer text
constexpr qsizetype measuredLength = 20'000;  // UTF-16 units measured; no screen shows a longer text
constexpr int roomForRounding = 2;            // pixels added to a measured width, which QFontMetrics rounds
constexpr int fewestLines = 4;

/// Returns the width that the text needs without wrapping, in pixels; at most `most`.
int naturalWidth(const QString& text, const QFontMetrics& metrics, int most) {
  const int width = metrics.size(Qt::TextExpandTabs, text.left(measuredLength)).width() + roomForRounding;
  return std::max(1, std::min(width, most));
}

/// Returns the size of the text when it is wrapped to this width, in pixels. Lines break between words. A
/// word that is wider than `width` makes the result wider than `width`, unless `flags` contains
/// Qt::TextWrapAnywhere: then lines also break inside such a word.
QSize wrappedSize(const QString& text, const QFontMetrics& metrics, int width, int flags = 0) {
  const QRect unlimited(0, 0, width, QWIDGETSIZE_MAX);
  flags |= static_cast<int>(Qt::TextWordWrap) | Qt::TextExpandTabs;
  return metrics.boundingRect(unlimited, flags, text.left(measuredLength)).size();
}

/// Shows a context menu with "Copy" and "Select All". In Qt 6.4, QLabel itself shows a context menu only
/// when the user clicks on a link, even if the text can be selected.
void showContextMenu(QLabel* label, QPoint place) {
  const auto titled = [](const char* word, QKeySequence::StandardKey key) {
    return QCoreApplication::translate("QWidgetTextControl", word) + QLatin1Char('\t') +
           QKeySequence(key).toString(QKeySequence::NativeText);
  };
  const auto copy = [label] {
    QGuiApplication::clipboard()->setText(
        label->selectedText().replace(QChar::ParagraphSeparator, QLatin1Char('\n')));
  };
  const auto selectAll = [label] { label->setSelection(0, static_cast<int>(label->text().size())); };
  auto* const menu = new QMenu(label);
  menu->setAttribute(Qt::WA_DeleteOnClose);
  menu->addAction(titled("&Copy", QKeySequence::Copy), label, copy)->setEnabled(label->hasSelectedText());
  menu->addSeparator();
  menu->addAction(titled("Select All", QKeySequence::SelectAll), label, selectAll);
  menu->popup(label->mapToGlobal(place));
}

}  // namespace

QLabel* makeShortText(const QString& text, const QFont& font, int most) {
  if (text.size() > mostForLabel) return nullptr;
  const QFontMetrics metrics(font);
  const int width = naturalWidth(text, metrics, most);
  if (wrappedSize(text, metrics, width).width() > width) return nullptr;
  auto* const label = new QLabel(text);
  label->setFont(font);
  label->setTextFormat(Qt::PlainText);
  label->setWordWrap(true);
  label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  label->setAlignment(Qt::AlignLeading | Qt::AlignTop);
  label->setFixedSize(width, label->heightForWidth(width));
  label->setContextMenuPolicy(Qt::CustomContextMenu);
  QObject::connect(label, &QLabel::customContextMenuRequested, label,
                   [label](QPoint place) { showContextMenu(label, place); });
  return label;
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
