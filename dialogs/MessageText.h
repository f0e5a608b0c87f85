#pragma once

#include <QLabel>
#include <QPlainTextEdit>

namespace kestrune::dialogs {

/// A text that is shown whole and can be selected and copied, at its natural width, at most `most` pixels. A
/// QLabel, so that screen readers read it when its window opens. Null when the text is very long, or has a
/// word that is too long for a line.
QLabel* makeShortText(const QString& text, const QFont& font, int most);

/// A text that scrolls and can be selected and copied. Its layout stays fast whatever the length of the text.
class LongText final : public QPlainTextEdit {
 public:
  /// Its preferred size is that of the text, at most `room`. It can shrink to a few lines.
  LongText(const QString& text, QSize room);

  QSize sizeHint() const override { return preferred; }
  QSize minimumSizeHint() const override;

 protected:
  /// Copies the original text, without the breaks that were added to long lines.
  QMimeData* createMimeDataFromSelection() const override;

 private:
  int fewestHeight() const;

  QSize preferred;
};

}  // namespace kestrune::dialogs
