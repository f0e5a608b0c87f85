#pragma once

#include <QLabel>
#include <vector>

#include "ports/View.h"

namespace kestrune::dialogs {

/// The label of a view. A text that does not fit, in width or in lines, is elided, and the tool tip shows the
/// whole. A QLabel, so that screen readers read it; only its painting differs.
class TextLabel final : public QLabel {
 public:
  explicit TextLabel(const View& view, QWidget* parent = nullptr);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return sizeHint(); }
  bool hasHeightForWidth() const override { return true; }
  int heightForWidth(int width) const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  struct Line {
    QString text;
    double height;
    double ascent;
  };
  struct Lines {
    std::vector<Line> all;
    bool complete = true;  ///< nothing is elided
  };
  Lines breakLines(int width) const;
  const Lines& linesFor(int width) const;
  void takeFont();

  View view;                     ///< without its text
  mutable int widthOfLines = 0;  ///< width for which `lines` are valid; 0: none yet
  mutable Lines lines;
};

}  // namespace kestrune::dialogs
