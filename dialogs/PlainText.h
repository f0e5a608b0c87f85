#pragma once

#include <QString>
#include <string>
#include <string_view>

#include "text/Text.h"

// These functions make text from any source safe to display as plain text. They do not escape HTML. Tool tips
// interpret HTML, so pass the text of a tool tip through Qt::convertFromPlainText.

namespace kestrune::dialogs {

/// Returns `utf8` as a text of several lines. Every line end becomes LF, and tabs stay. Other control
/// characters, and characters that change the writing direction, become spaces.
inline QString readableText(std::string_view utf8) {
  std::string readable;
  LineSplitter lines(utf8);
  for (std::string_view line; lines.next(line);) readable += withoutControls(line, true) + '\n';
  if (!readable.empty()) readable.pop_back();
  return QString::fromStdString(readable);
}

/// Returns `utf8` as a single line: like `readableText`, but line ends become spaces too.
inline QString readableLine(std::string_view utf8) {
  return QString::fromStdString(withoutControls(utf8));
}

/// Returns `text` with each "&" doubled, for a widget that would underline the character after a single "&".
inline QString withoutMnemonics(QString text) {
  return text.replace(QLatin1Char('&'), QStringLiteral("&&"));
}

}  // namespace kestrune::dialogs
