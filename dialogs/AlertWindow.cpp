#include "dialogs/AlertWindow.h"

#include <QApplication>
#include <QClipboard>
#include <QGridLayout>
#include <QInputMethod>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QStringTokenizer>
#include <QStyle>
#include <QTextBoundaryFinder>
#include <QTextDocumentFragment>
#include <algorithm>
#include <utility>

#include "dialogs/Appearance.h"
#include "dialogs/PlainText.h"
#include "dialogs/ViewBuilder.h"

namespace kestrune::dialogs {

namespace {

// The widths, heights and distances are in points (see Appearance.h).
constexpr double narrowestText = 300;
constexpr double widestText = 440;
constexpr double widestLongText = 640;
constexpr double highestLongText = 520;
constexpr double betweenTexts = 2;  // added to the spacing of the widget style

constexpr qsizetype longestTitle = 300;       // UTF-16 units; the rest of a longer title is cut off
constexpr qsizetype mostForLabel = 2000;      // UTF-16 units; QLabel is slow with a longer text
constexpr qsizetype measuredLength = 20'000;  // UTF-16 units measured; no screen shows a longer text
constexpr int roomForRounding = 2;            // pixels added to a measured width, which QFontMetrics rounds
constexpr int fewestLines = 4;

constexpr qsizetype longestLine = 2000;  // UTF-16 units; longer lines are laid out too slowly
constexpr qsizetype lookBack = 64;       // UTF-16 units; a line break is searched so far before `longestLine`
const QString addedBreak = QStringLiteral("\u2060\n");  // LF, marked by the invisible word joiner

/// Returns the width that the text needs without wrapping, in pixels; at most `most`.
int naturalWidth(const QString& text, const QFontMetrics& metrics, int most) {
  const int width = metrics.size(Qt::TextExpandTabs, text.left(measuredLength)).width() + roomForRounding;
  return std::max(1, std::min(width, most));
}

/// Returns the size of the text when it is wrapped to this width, in pixels. Lines break between words. A
/// word that is wider than `width` makes the result wider than `width`, unless `flags` contains
/// Qt::TextWrapAnywhere: then lines also break inside such a word.
QSize wrappedSize(const QString& text, const QFontMetrics& metrics, int width, int flags = 0) {
  flags |= static_cast<int>(Qt::TextWordWrap) | Qt::TextExpandTabs;
  return metrics.boundingRect(0, 0, width, QWIDGETSIZE_MAX, flags, text.left(measuredLength)).size();
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

/// Makes a label of the whole text, which the user can select and copy, at most `most` pixels wide. It is a
/// QLabel because screen readers read a QLabel when its window opens. Returns null if the text is longer than
/// `mostForLabel`, or contains a word that is wider than `most`.
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

QWidget* makeTitle(const QString& text, int width) {
  QFont font = QApplication::font();
  font.setBold(true);
  if (auto* const title = makeShortText(text, font, width)) {
    // The user can select the title with the mouse, but the Tab key skips it.
    title->setFocusPolicy(Qt::ClickFocus);
    return title;
  }
  View view{.kind = ViewKind::label, .text = text.toStdString(), .fontWeight = FontWeight::semibold};
  view.maximumLines = 3;
  return buildView(view);
}

/// Returns where to break a line that is longer than `longestLine`. Searches the last `lookBack` units before
/// that limit: for a space, else for a place between two grapheme clusters (characters with their combining
/// marks). If one cluster fills all these units, breaks inside the cluster, but not inside a surrogate pair.
qsizetype breakIn(QStringView line) {
  const auto window = line.mid(longestLine - lookBack, 2 * lookBack);
  const auto space = window.first(lookBack).lastIndexOf(QLatin1Char(' '));
  if (space >= 0) return longestLine - lookBack + space + 1;
  QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, window.constData(), window.size());
  finder.setPosition(lookBack);
  const auto between = finder.isAtBoundary() ? lookBack : finder.toPreviousBoundary();
  if (between > 0) return longestLine - lookBack + between;
  return window[lookBack].isLowSurrogate() ? longestLine - 1 : longestLine;
}

/// Returns `text` with `addedBreak` inserted into lines that are too long to be laid out fast.
QString withLongLinesBroken(const QString& text) {
  QString broken;
  for (QStringView line : QStringView(text).tokenize(u'\n')) {
    while (line.size() > longestLine) {
      const auto at = breakIn(line);
      broken.append(line.first(at)).append(addedBreak);
      line = line.sliced(at);
    }
    broken.append(line).append(QLatin1Char('\n'));
  }
  broken.chop(1);
  return broken;
}

/// A text that scrolls, and that the user can select and copy. Its layout is fast for a text of any length.
class LongText final : public QPlainTextEdit {
 public:
  /// Prefers a size with room for the whole text, but at most `room` pixels. It can shrink to a few lines.
  LongText(const QString& text, QSize room) {
    setReadOnly(true);
    setUndoRedoEnabled(false);
    setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);

    const QString broken = withLongLinesBroken(text);
    setPlainText(broken);

    const int around = 2 * (frameWidth() + static_cast<int>(document()->documentMargin()));
    const int beside = around + style()->pixelMetric(QStyle::PM_ScrollBarExtent, nullptr, this);
    const int width = naturalWidth(broken, fontMetrics(), room.width() - beside);
    const int height = wrappedSize(broken, fontMetrics(), width, Qt::TextWrapAnywhere).height() + around;
    const int fewestHeight = fewestLines * fontMetrics().lineSpacing();
    preferred = {width + beside, std::max(std::min(height, room.height()), fewestHeight)};
    setMinimumSize(std::min(preferred.width(), 3 * fewestHeight), fewestHeight);
  }

  QSize sizeHint() const override { return preferred; }

 protected:
  /// Copies the original text, without the line breaks that were added to long lines.
  QMimeData* createMimeDataFromSelection() const override {
    auto* const copied = new QMimeData;
    copied->setText(textCursor().selection().toPlainText().remove(addedBreak));
    return copied;
  }

 private:
  QSize preferred;
};

}  // namespace

AlertWindow::AlertWindow(int number, const Alert& alert, QWidget* beneath)
    : DialogWindow(number, readableLine(alert.messageText).left(longestTitle), beneath),
      buttonCount(alert.buttons.size()) {
  auto* const layout = new QVBoxLayout(this);
  const QSize room = roomForWindow().shrunkBy(layout->contentsMargins());
  QWidget* const buttons = makeButtons(alert, room.width());
  const QSize roomForBody = room - QSize(0, buttons->sizeHint().height() + 2 * layout->spacing());

  makeBody(alert, roomForBody);
  if (const QSize least = body->minimumSizeHint(); least.boundedTo(roomForBody) != least) {
    // The body is too large for the screen. Scroll it, so that the buttons stay visible.
    auto* const area = new QScrollArea;
    area->setFrameShape(QFrame::NoFrame);
    area->setWidget(body);
    area->setWidgetResizable(true);
    layout->addWidget(area, 1);
  } else {
    layout->addWidget(body, 1);
  }
  layout->addSpacing(layout->spacing());
  layout->addWidget(buttons);
  auto* const firstButton = buttons->findChild<QPushButton*>();
  firstButton->setDefault(true);
  auto* const firstField = body->findChild<QLineEdit*>();
  (firstField != nullptr ? static_cast<QWidget*>(firstField) : firstButton)->setFocus();

  // If a part of the window scrolls, let the user resize the window.
  if (findChild<QAbstractScrollArea*>() != nullptr) {
    resize(layout->totalSizeHint().boundedTo(roomForWindow()));
  } else {
    layout->setSizeConstraint(QLayout::SetFixedSize);
  }
}

void AlertWindow::makeBody(const Alert& alert, QSize room) {
  body = new QWidget(this);
  auto* const grid = new QGridLayout(body);
  grid->setContentsMargins(0, 0, 0, 0);
  grid->setColumnStretch(1, 1);
  const int gap = 2 * grid->horizontalSpacing();
  grid->setHorizontalSpacing(gap);

  const int side = style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, this);
  const bool isWarning = alert.style == AlertStyle::warning;
  auto* const icon = new QLabel;
  icon->setFixedSize(side, side);
  icon->setAccessibleName(isWarning ? QStringLiteral("警告") : QStringLiteral("訊息"));
  // A QLabel has the accessible role of a picture only if it has a pixmap. So set one of a single pixel.
  // `furnish` replaces it: loading the icon takes longer than building the whole window.
  icon->setPixmap(QPixmap(1, 1));
  furnish = [this, icon, isWarning] {
    const auto sign = isWarning ? QStyle::SP_MessageBoxWarning : QStyle::SP_MessageBoxInformation;
    icon->setPixmap(style()->standardIcon(sign, nullptr, this).pixmap(icon->size(), devicePixelRatioF()));
  };
  QWidget* const view = alert.accessoryView ? buildView(*alert.accessoryView) : nullptr;

  const int beside = side + gap;
  int width = pixels(widestText);
  if (view != nullptr) width = std::max(pixels(narrowestText), view->sizeHint().width() - beside);
  width = std::max(1, std::min(width, room.width() - beside));

  // If the icon is taller than the texts beside it, the two stretches centre the texts vertically.
  auto* const texts = new QVBoxLayout;
  texts->addStretch();
  texts->addWidget(makeTitle(readableLine(alert.messageText).left(longestTitle), width), 0, Qt::AlignLeading);
  grid->addWidget(icon, 0, 0, Qt::AlignTop);
  grid->addLayout(texts, 0, 1);
  grid->setColumnMinimumWidth(1, std::min(pixels(narrowestText) - beside, width));

  int row = 1;
  if (const QString text = readableText(alert.informativeText); !text.isEmpty()) {
    QLabel* const label = makeShortText(text, QApplication::font(), width);
    if (label != nullptr && label->height() <= room.height() / 2) {
      texts->addSpacing(pixels(betweenTexts));
      texts->addWidget(label, 0, Qt::AlignLeading);
    } else {
      delete label;
      const int taken = grid->sizeHint().height() + grid->verticalSpacing() +
                        (view != nullptr ? view->sizeHint().height() : 0);
      auto* const shown = new LongText(text, QSize(std::min(pixels(widestLongText), room.width()),
                                                   std::min(pixels(highestLongText), room.height() - taken)));
      shown->setAccessibleName(accessibleName());
      grid->addWidget(shown, row++, 0, 1, 2);
    }
  }
  texts->addStretch();

  if (view != nullptr)
    grid->addWidget(view, row, 0, 1, 2, canShrink(*view) ? Qt::Alignment() : Qt::AlignHCenter);
  for (const auto* const button : body->findChildren<QPushButton*>())
    connect(button, &QPushButton::clicked, this,
            [this, action = button->objectName().toStdString()] { onPressed(action); });
}

QWidget* AlertWindow::makeButtons(const Alert& alert, int room) {
  auto* const row = new QWidget;
  auto* const layout = new QBoxLayout(QBoxLayout::LeftToRight, row);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addStretch();
  for (std::size_t i = 0; i < alert.buttons.size(); ++i) {
    auto* const button = new QPushButton(withoutMnemonics(readableLine(alert.buttons[i])));
    connect(button, &QPushButton::clicked, this, [this, i] { answer(i); });
    layout->addWidget(button);
  }
  if (row->sizeHint().width() > room) layout->setDirection(QBoxLayout::TopToBottom);
  return row;
}

void AlertWindow::keyPressEvent(QKeyEvent* event) {
  // Page Up, Page Down, Home and End scroll the long text, even while a button has the focus.
  if (const auto* const longText = body->findChild<QPlainTextEdit*>()) {
    longText->verticalScrollBar()->event(event);
    if (event->isAccepted()) return;
  }
  DialogWindow::keyPressEvent(event);
}

void AlertWindow::answer(std::optional<std::size_t> button) {
  if (!onAnswered) return;
  QGuiApplication::inputMethod()->commit();
  AlertAnswer result{button, {}};
  for (const auto* const field : body->findChildren<QLineEdit*>())
    result.fields[field->objectName().toStdString()] = field->text().toStdString();
  hide();
  std::exchange(onAnswered, nullptr)(result);
}

}  // namespace kestrune::dialogs
