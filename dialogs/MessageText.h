#pragma once

#include <QLabel>
#include <QPlainTextEdit>

namespace kestrune::dialogs {

/// Makes a label that shows the whole text and lets the user select and copy it. The label is as wide as the
/// text, but at most `most` pixels. A QLabel is used because screen readers read a QLabel when its window
/// opens. Returns null if the text is longer than 2000 UTF-16 units, or contains a word that is wider than
/// `most`. The caller owns the label.
QLabel* makeShortText(const QString& text, const QFont& font, int most);

/// A text that scrolls, and that the user can select and copy. Its layout is fast for a text of any length.
class LongText final : public QPlainTextEdit {
 public:
  /// The preferred size has room for the whole text, but is at most `room` (in pixels). The widget can shrink
  /// to a few lines.
  LongText(const QString& text, QSize room);

  QSize sizeHint() const override { return preferred; }
  QSize minimumSizeHint() const override;

 protected:
  /// Copies the original text, without the line breaks that were added to long lines.
  QMimeData* createMimeDataFromSelection() const override;

 private:
  int fewestHeight() const;

  QSize preferred;
};

}  // namespace kestrune::dialogs
