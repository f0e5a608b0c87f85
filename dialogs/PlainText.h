#pragma once

#include <QFontMetrics>
#include <QString>
#include <string>
#include <string_view>
#include <vector>

// Make text of any origin safe to display. Qt never interprets the results as markup.

namespace kestrune::dialogs {

/// `utf8` as a text of several lines: all line ends become LF and tabs stay; other control characters and
/// bidirectional controls become spaces.
QString readableText(std::string_view utf8);

/// `utf8` as a single line: line ends become spaces too.
QString readableLine(std::string_view utf8);

/// `text` with each "&" doubled, for a widget that takes "&" for a mnemonic.
QString withoutMnemonics(QString text);

/// `text` as escaped HTML, for a tool tip, which takes some texts for HTML.
QString toolTipText(const QString& text);

/// `text` if it fits in `width`, else elided in the middle. Fast for texts of any length.
QString elidedInTheMiddle(const QString& text, const QFontMetrics& metrics, int width);

/// A text whose lines are short enough to be laid out fast.
struct BrokenText {
  QString text;
  std::vector<int> continuations;  ///< numbers, from 0, of the lines that continue the line before
};
BrokenText withLongLinesBroken(const QString& text);

}  // namespace kestrune::dialogs
