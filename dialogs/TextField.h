#pragma once

#include <QLineEdit>

#include "ports/View.h"

namespace kestrune::dialogs {

/// A field of one line. Without the focus, a text that does not fit is painted with its middle elided; the
/// value stays whole. A secure field does not show its text, report it to screen readers or copy it.
class TextField final : public QLineEdit {
 public:
  explicit TextField(const View& view, QWidget* parent = nullptr);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  void dimPlaceholder();

  double points;  ///< the stated width; 0 for none
};

}  // namespace kestrune::dialogs
