#pragma once

#include <QString>
#include <string_view>

// These functions make text from any source safe to display as plain text. They do not escape HTML. Tool tips
// interpret HTML, so pass the text of a tool tip through Qt::convertFromPlainText.

namespace kestrune::dialogs {

/// Returns `utf8` as a text of several lines. Every line end becomes LF, and tabs stay. Other control
/// characters, and characters that change the writing direction, become spaces.
QString readableText(std::string_view utf8);

/// Returns `utf8` as a single line: like `readableText`, but line ends become spaces too.
QString readableLine(std::string_view utf8);

/// Returns `text` with each "&" doubled, for a widget that would underline the character after a single "&".
QString withoutMnemonics(QString text);

}  // namespace kestrune::dialogs
