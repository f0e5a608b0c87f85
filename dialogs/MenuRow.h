#pragma once

#include <QLabel>
#include <QPushButton>

#include "ports/Menu.h"

class QStyleOptionMenuItem;

namespace kestrune::dialogs {

/// What a row of a menu window is. It may change while the window shows.
enum class MenuRowKind { heading, label, separator, command };

/// `previous` is the row above, or null: a row to read that begins a section is the heading of it.
MenuRowKind kindOf(const MenuItem& item, const MenuItem* previous);

/// The keys that choose an item; none if it has none.
QKeySequence keysOf(const MenuItem& item);

/// A row to read. A label of the toolkit beneath, so that it is read as one.
class MenuLabel final : public QLabel {
 public:
  MenuLabel();

  void setItem(const MenuItem& item, MenuRowKind kind);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  QStyleOptionMenuItem option() const;

  MenuRowKind kind = MenuRowKind::label;
};

/// A row to choose, with its check mark and its keys. A button of the toolkit beneath, so that it is told and
/// pressed as one. The mark follows no press, only what the menu says.
class MenuButton final : public QPushButton {
 public:
  MenuButton();

  /// `keyWidth` is how many pixels the widest keys in the menu take.
  void setItem(const MenuItem& item, int keyWidth);

  /// As it is read aloud.
  const QString& name() const { return title; }

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

 protected:
  void nextCheckState() override {}
  void keyPressEvent(QKeyEvent* event) override;
  void enterEvent(QEnterEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  QStyleOptionMenuItem option() const;

  QString title;
  QString keys;
  int keyRoom = 0;
};

/// From now on, screen readers are told the keys of rows with a check mark, and lines of the window are
/// separators to them. The toolkit leaves out the first and takes the second for empty panels.
void tellRowsToScreenReaders();

}  // namespace kestrune::dialogs
