#pragma once

#include <QLabel>
#include <QPlainTextEdit>

namespace kestrune::dialogs {

/// A text short enough to be seen whole; selectable and copyable. Read aloud when its window opens, as labels
/// are.
class ShortText final : public QLabel {
 public:
  /// As wide as it would like to be, but not wider than `most` pixels. Null when it cannot be shown well like
  /// that: when it is very long, or holds a word that is too long for a line.
  static ShortText* make(const QString& text, const QFont& font, int most);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return sizeHint(); }

 protected:
  void contextMenuEvent(QContextMenuEvent* event) override;

 private:
  ShortText(const QString& text, const QFont& font, int wanted);

  int width;
};

/// A text to scroll in; selectable and copyable. One of any length and shape keeps its window lively.
class LongText final : public QPlainTextEdit {
 public:
  /// It would be as large as its text, but not larger than `room`, and takes as little as a few lines.
  LongText(const QString& text, QSize room);

  QSize sizeHint() const override { return preferred; }
  QSize minimumSizeHint() const override;

 protected:
  /// What is copied is the text as it came, without the breaks in lines that are too long.
  QMimeData* createMimeDataFromSelection() const override;

 private:
  int fewestHeight() const;

  QSize preferred;
};

}  // namespace kestrune::dialogs
