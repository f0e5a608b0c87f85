#include "dialogs/AlertWindow.h"

#include <QApplication>
#include <QGridLayout>
#include <QInputMethod>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QStyle>
#include <algorithm>
#include <utility>

#include "dialogs/Appearance.h"
#include "dialogs/MessageText.h"
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

constexpr qsizetype longestTitle = 300;  // UTF-16 units; the rest of a longer title is cut off
constexpr int mostTitleLines = 3;

QWidget* makeTitle(const QString& text, int width) {
  QFont font = QApplication::font();
  font.setBold(true);
  if (auto* const title = makeShortText(text, font, width)) {
    // The user can select the title with the mouse, but the Tab key skips it.
    title->setFocusPolicy(Qt::ClickFocus);
    return title;
  }
  View view{.kind = ViewKind::label, .text = text.toStdString(), .fontWeight = FontWeight::semibold};
  view.maximumLines = mostTitleLines;
  return buildView(view);
}

}  // namespace

AlertWindow::AlertWindow(int number, const Alert& alert, AlertWindow* beneath)
    : DialogWindow(beneath), id(number), alertStyle(alert.style), buttonCount(alert.buttons.size()) {
  setName(readableLine(alert.messageText).left(longestTitle));

  auto* const layout = new QVBoxLayout(this);
  const QMargins margins = layout->contentsMargins();
  const QSize room = roomForWindow().shrunkBy(margins);
  QWidget* const buttons = makeButtons(alert, room.width());
  const QSize roomForBody = room - QSize(0, buttons->sizeHint().height() + 2 * layout->spacing());

  makeBody(alert, roomForBody);
  const QSize least = body->minimumSizeHint();
  if (least.width() > roomForBody.width() || least.height() > roomForBody.height()) {
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
  icon = new QLabel;
  icon->setFixedSize(side, side);
  icon->setAccessibleName(alertStyle == AlertStyle::warning ? QStringLiteral("警告")
                                                            : QStringLiteral("訊息"));
  // A QLabel has the accessible role of a picture only if it has a pixmap. So set one of a single pixel.
  // `furnish` replaces this pixmap by the icon.
  icon->setPixmap(QPixmap(1, 1));
  QWidget* view = nullptr;
  if (alert.accessoryView) {
    view = buildView(*alert.accessoryView, [this](const std::string& action) { onPressed(action); });
  }

  const int beside = side + gap;
  int width = pixels(widestText);
  if (view != nullptr) width = std::max(pixels(narrowestText), view->sizeHint().width() - beside);
  width = std::max(1, std::min(width, room.width() - beside));

  // The texts stand beside the icon. If the icon is taller than the texts, the two stretches centre the texts
  // vertically.
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
      longText = new LongText(text, QSize(std::min(pixels(widestLongText), room.width()),
                                          std::min(pixels(highestLongText), room.height() - taken)));
      longText->setAccessibleName(accessibleName());
      grid->addWidget(longText, row++, 0, 1, 2);
    }
  }
  texts->addStretch();

  if (view != nullptr)
    grid->addWidget(view, row, 0, 1, 2, canShrink(*view) ? Qt::Alignment() : Qt::AlignHCenter);
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

void AlertWindow::furnish() {
  // The icon is loaded only after the window is mapped, so that the window appears sooner. Loading the icon
  // takes longer than building the whole window.
  const auto which =
      alertStyle == AlertStyle::warning ? QStyle::SP_MessageBoxWarning : QStyle::SP_MessageBoxInformation;
  icon->setPixmap(style()->standardIcon(which, nullptr, this).pixmap(icon->size(), devicePixelRatioF()));
}

void AlertWindow::reject() {
  // Closing an alert that has a single button counts as pressing that button.
  answer(buttonCount == 1 ? std::optional<std::size_t>(0) : std::nullopt);
}

void AlertWindow::keyPressEvent(QKeyEvent* event) {
  // Page Up, Page Down, Home and End scroll the long text, even while a button has the focus.
  if (longText != nullptr && scrollByKey(*longText->verticalScrollBar(), *event)) return;
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
