#include "dialogs/ScreenReaders.h"

#include <QAccessibleWidget>
#include <QLineEdit>
#include <algorithm>
#include <array>

#include "dialogs/MenuRow.h"

namespace kestrune::dialogs {

namespace {

void tell(QAccessibleEvent* event);

/// Sends the event as Qt would if no update handler were installed.
void pass(QAccessibleEvent* event) {
  QAccessible::installUpdateHandler(nullptr);
  QAccessible::updateAccessibility(event);
  QAccessible::installUpdateHandler(&tell);
}

QString masked(const QString& text) {
  return {text.size(), QChar(0x2022)};
}

/// Returns whether the event is about text, but from a widget without a text interface. QLabel sends such
/// events. Qt warns on standard error about each of them, so they are dropped.
bool isPointless(QAccessibleEvent& event) {
  static constexpr std::array textEvents{QAccessible::TextInserted, QAccessible::TextRemoved,
                                         QAccessible::TextUpdated, QAccessible::TextCaretMoved,
                                         QAccessible::TextSelectionChanged};
  if (std::find(textEvents.begin(), textEvents.end(), event.type()) == textEvents.end()) return false;
  QAccessibleInterface* const source = event.accessibleInterface();
  return source == nullptr || source->textInterface() == nullptr;
}

void tell(QAccessibleEvent* event) {
  if (isPointless(*event)) return;
  const auto* const field = qobject_cast<QLineEdit*>(event->object());
  if (field == nullptr || field->echoMode() == QLineEdit::Normal) return pass(event);
  switch (event->type()) {
    case QAccessible::TextInserted: {
      const auto* const change = static_cast<QAccessibleTextInsertEvent*>(event);
      QAccessibleTextInsertEvent safe(event->object(), change->changePosition(),
                                      masked(change->textInserted()));
      return pass(&safe);
    }
    case QAccessible::TextRemoved: {
      const auto* const change = static_cast<QAccessibleTextRemoveEvent*>(event);
      QAccessibleTextRemoveEvent safe(event->object(), change->changePosition(),
                                      masked(change->textRemoved()));
      return pass(&safe);
    }
    case QAccessible::TextUpdated:
    case QAccessible::ValueChanged:
      return;  // Drop the event, because it contains the whole text.
    default:
      return pass(event);
  }
}

class AccessibleRow final : public QAccessibleWidget {
 public:
  explicit AccessibleRow(MenuRow& represented) : QAccessibleWidget(&represented), row(represented) {}

  QAccessible::Role role() const override { return row.role(); }
  QAccessible::State state() const override {
    QAccessible::State state = QAccessibleWidget::state();
    state.checkable = row.isCheckable();
    state.checked = row.isChecked();
    if (role() == QAccessible::StaticText) state.disabled = false;
    return state;
  }
  QStringList actionNames() const override {
    if (!row.isEnabled()) return {};
    return QStringList(row.isCheckable() ? toggleAction() : pressAction()) + QAccessibleWidget::actionNames();
  }
  void doAction(const QString& action) override {
    if (action == toggleAction() || action == pressAction()) return row.click();
    QAccessibleWidget::doAction(action);
  }
  QStringList keyBindingsForAction(const QString&) const override {
    return {row.shortcut().toString(QKeySequence::NativeText)};
  }

 private:
  MenuRow& row;
};

QAccessibleInterface* accessibleRow(const QString&, QObject* object) {
  auto* const row = dynamic_cast<MenuRow*>(object);
  return row != nullptr ? new AccessibleRow(*row) : nullptr;
}

}  // namespace

void prepareForScreenReaders() {
  QAccessible::installUpdateHandler(&tell);
  QAccessible::installFactory(&accessibleRow);
}

}  // namespace kestrune::dialogs
