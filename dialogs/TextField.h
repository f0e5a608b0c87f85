#pragma once

#include <QLineEdit>

#include "ports/View.h"

namespace kestrune::dialogs {

/// A field for one line. While nobody writes in it, a text that does not fit is shown with its middle left
/// out; the text itself stays whole, however long it is. A secure one shows, tells and copies nothing of what
/// it holds.
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

  double points;  ///< the stated width, 0 if there is none
};

}  // namespace kestrune::dialogs
