#pragma once

#include <QFontMetrics>
#include <QString>
#include <string>
#include <string_view>
#include <vector>

// Text comes from outside and may hold anything. These make it safe to draw, and none of it is ever markup.

namespace kestrune::dialogs {

/// `utf8` for a text of many lines: lines end with a line feed whatever they ended with; tabs stay; other
/// controls and what turns the writing direction are blanks.
QString readableText(std::string_view utf8);

/// `utf8` for a single line, in which line ends are blanks too.
QString readableLine(std::string_view utf8);

/// `text` for a widget that takes an ampersand for the mark of a key.
QString withoutMnemonics(QString text);

/// `text` for a tool tip, which takes some texts for markup.
QString toolTipText(const QString& text);

/// `text` if it fits in `width`, else with its middle left out. Fast for texts of any length.
QString elidedInTheMiddle(const QString& text, const QFontMetrics& metrics, int width);

/// A text of which no line is too long to be laid out while somebody waits.
struct BrokenText {
  QString text;
  std::vector<int> continuations;  ///< numbers of the lines, from 0, that only continue the line before them
};
BrokenText withLongLinesBroken(const QString& text);

}  // namespace kestrune::dialogs
