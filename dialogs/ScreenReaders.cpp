#include "dialogs/ScreenReaders.h"

#include <QAccessible>
#include <QLineEdit>

namespace kestrune::dialogs {

namespace {

void tell(QAccessibleEvent* event);

/// Lets Qt send the event to screen readers. Qt does this only while no update handler is installed.
void pass(QAccessibleEvent* event) {
  QAccessible::installUpdateHandler(nullptr);
  QAccessible::updateAccessibility(event);
  QAccessible::installUpdateHandler(&tell);
}

QString masked(const QString& text) {
  return {text.size(), QChar(0x2022)};
}

/// Returns whether the event is about text, but from a widget without a text interface. QLabel sends such
/// events. `tell` drops them, because Qt would warn on standard error about each of them.
bool isPointless(QAccessibleEvent& event) {
  if (dynamic_cast<QAccessibleTextCursorEvent*>(&event) == nullptr) return false;
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
      return;  // Drop the event, because it contains the whole text of the password field.
    default:
      return pass(event);
  }
}

}  // namespace

void hideMaskedText() {
  QAccessible::installUpdateHandler(&tell);
}

}  // namespace kestrune::dialogs
