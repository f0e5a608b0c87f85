#include "dialogs/SecretKeeper.h"

#include <QAccessible>
#include <QLineEdit>

namespace kestrune::dialogs {

namespace {

void tell(QAccessibleEvent* event);

/// Handles the event as Qt does without an update handler.
void pass(QAccessibleEvent* event) {
  QAccessible::installUpdateHandler(nullptr);
  QAccessible::updateAccessibility(event);
  QAccessible::installUpdateHandler(&tell);
}

QString masked(const QString& text) {
  return {text.size(), QChar(0x2022)};
}

bool tellsOfText(const QAccessibleEvent& event) {
  switch (event.type()) {
    case QAccessible::TextInserted:
    case QAccessible::TextRemoved:
    case QAccessible::TextUpdated:
    case QAccessible::TextCaretMoved:
    case QAccessible::TextSelectionChanged:
      return true;
    default:
      return false;
  }
}

void tell(QAccessibleEvent* event) {
  if (tellsOfText(*event)) {
    // QLabel sends text events without a text interface, and Qt warns about that on standard error.
    QAccessibleInterface* const source = event->accessibleInterface();
    if (source == nullptr || source->textInterface() == nullptr) return;
  }
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
    case QAccessible::TextUpdated: {
      const auto* const change = static_cast<QAccessibleTextUpdateEvent*>(event);
      QAccessibleTextUpdateEvent safe(event->object(), change->changePosition(),
                                      masked(change->textRemoved()), masked(change->textInserted()));
      return pass(&safe);
    }
    case QAccessible::ValueChanged:
      return;
    default:
      return pass(event);
  }
}

}  // namespace

void keepSecretsFromScreenReaders() {
  QAccessible::installUpdateHandler(&tell);
}

}  // namespace kestrune::dialogs
