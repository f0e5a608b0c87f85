#include "dialogs/ViewBuilder.h"

#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>
#include <algorithm>

#include "dialogs/Appearance.h"
#include "dialogs/PictureView.h"
#include "dialogs/PlainText.h"
#include "dialogs/TextField.h"
#include "dialogs/TextLabel.h"

namespace kestrune::dialogs {

namespace {

constexpr double largeButton = 30;      // points
constexpr double smallestScroll = 120;  // points; a lower form would be hard to use

/// A vertical scroll area that may be smaller than its size hint.
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
  }

  QSize sizeHint() const override {
    QSize size = widget() != nullptr ? widget()->sizeHint() : QSize(0, 0);
    if (wanted.height() > 0) size.setHeight(wanted.height());
    // Add the scroll bar's width, or it would cover the end of every line.
    size.setWidth(std::max(wanted.width(), size.width() + verticalScrollBar()->sizeHint().width()));
    return size;
  }
  QSize minimumSizeHint() const override {
    return {sizeHint().width(), std::min(sizeHint().height(), pixels(smallestScroll))};
  }

 private:
  QSize wanted;
};

class Builder {
 public:
  explicit Builder(const std::function<void(const std::string&)>& onPressed) : pressed(onPressed) {}

  QWidget* build(const View& view) {
    switch (view.kind) {
      case ViewKind::label:
        return new TextLabel(view);
      case ViewKind::textField:
      case ViewKind::secureTextField:
        return field(view);
      case ViewKind::button:
        return button(view);
      case ViewKind::image:
        return view.image ? new PictureView(view) : new QWidget;
      case ViewKind::stack:
        return stack(view);
      case ViewKind::scroll:
        return scroll(view);
      case ViewKind::container:
        return container(view);
    }
    return new QWidget;
  }

  BuiltView built;

 private:
  QWidget* field(const View& view) {
    auto* const made = new TextField(view);
    built.fields[view.identifier] = made;
    if (built.firstField == nullptr) built.firstField = made;
    if (!view.accessibilityLabel.empty()) {
      made->setAccessibleName(readableLine(view.accessibilityLabel));
    } else {
      made->setAccessibleName(labelAbove.isEmpty() ? made->placeholderText() : labelAbove);
    }
    return made;
  }

  QWidget* button(const View& view) {
    auto* const made = new QPushButton(withoutMnemonics(readableLine(view.text)));
    if (!view.accessibilityLabel.empty()) made->setAccessibleName(readableLine(view.accessibilityLabel));
    made->setMinimumHeight(pixels(largeButton));
    if (view.width > 0) made->setFixedWidth(std::max(pixels(view.width), made->minimumSizeHint().width()));
    QObject::connect(made, &QPushButton::clicked, made,
                     [callback = pressed, action = view.action] { callback(action); });
    return made;
  }

  QWidget* stack(const View& view) {
    auto* const made = new QWidget;
    auto* const layout = new QVBoxLayout(made);
    layout->setSpacing(pixels(view.spacing));
    layout->setContentsMargins(marginsOf(view));
    const auto alignment = view.alignment == StackAlignment::centerX ? Qt::AlignHCenter : Qt::AlignLeading;
    labelAbove.clear();
    for (const auto& child : view.children) {
      QWidget* const widget = build(child);
      labelAbove = child.kind == ViewKind::label ? readableLine(child.text) : QString();
      // In an aligned cell, a widget keeps its size hint, so a scrolling one could not shrink.
      layout->addWidget(widget, 0, scrolls(child) ? Qt::Alignment() : alignment);
    }
    layout->addStretch();
    fixSize(*made, view.width, 0);
    return made;
  }

  QWidget* scroll(const View& view) {
    auto* const made = new ScrollView(view);
    if (!view.children.empty()) {
      QWidget* const content = build(view.children.front());
      content->setAutoFillBackground(false);
      made->setWidget(content);
      // setWidget has made it opaque.
      content->setAutoFillBackground(false);
    }
    built.canShrink = true;
    return made;
  }

  QWidget* container(const View& view) {
    auto* const made = new QWidget;
    auto* const layout = new QVBoxLayout(made);
    layout->setSpacing(0);
    layout->setContentsMargins(marginsOf(view));
    bool shrinks = false;
    for (const auto& child : view.children) {
      shrinks = shrinks || scrolls(child);
      QWidget* const widget = build(child);
      layout->addWidget(widget, 0, scrolls(child) ? Qt::Alignment() : Qt::AlignHCenter);
    }
    if (!shrinks) layout->addStretch();
    fixSize(*made, view.width, shrinks ? 0 : view.height);
    if (shrinks && view.height > 0) made->setMaximumHeight(pixels(view.height));
    return made;
  }

  static bool scrolls(const View& view) {
    return view.kind == ViewKind::scroll ||
           ((view.kind == ViewKind::container || view.kind == ViewKind::stack) &&
            std::any_of(view.children.begin(), view.children.end(), &Builder::scrolls));
  }

  static QMargins marginsOf(const View& view) {
    return {pixels(view.insets.left), pixels(view.insets.top), pixels(view.insets.right),
            pixels(view.insets.bottom)};
  }

  /// Fixes the size, but not below the minimum of the content: a picture or a large font may need more.
  static void fixSize(QWidget& widget, double width, double height) {
    const QSize least = widget.minimumSizeHint();
    if (width > 0) widget.setFixedWidth(std::max(pixels(width), least.width()));
    if (height > 0) widget.setFixedHeight(std::max(pixels(height), least.height()));
  }

  const std::function<void(const std::string&)>& pressed;
  QString labelAbove;  ///< the label just above in the stack; the accessible name of a field
};

}  // namespace

BuiltView buildView(const View& view, const std::function<void(const std::string&)>& pressed) {
  Builder builder(pressed);
  builder.built.widget = builder.build(view);
  return std::move(builder.built);
}

}  // namespace kestrune::dialogs
