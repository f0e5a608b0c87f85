#pragma once

#include <QFontMetrics>
#include <QString>
#include <string_view>

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

/// `text` with breaks in lines that are too long to be laid out fast. Each added break follows an invisible
/// character (word joiner, U+2060), by which `withoutAddedBreaks` finds it.
QString withLongLinesBroken(const QString& text);
QString withoutAddedBreaks(QString text);

}  // namespace kestrune::dialogs
