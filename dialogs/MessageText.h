#pragma once

#include <QLabel>
#include <QPlainTextEdit>

namespace kestrune::dialogs {

/// Makes a label that shows the whole text, which the user can select and copy. It is as wide as the text,
/// but at most `most` pixels. It is a QLabel because screen readers read a QLabel when its window opens.
/// Returns null if the text is very long, or has a word too long for a line. The caller owns the label.
QLabel* makeShortText(const QString& text, const QFont& font, int most);

/// A text that scrolls, and that the user can select and copy. Its layout is fast for a text of any length.
class LongText final : public QPlainTextEdit {
 public:
  /// The preferred size is that of the text, at most `room` (pixels). The widget can shrink to a few lines.
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
