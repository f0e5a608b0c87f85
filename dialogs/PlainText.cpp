#include "dialogs/PlainText.h"

#include <string>

#include "text/Text.h"

namespace kestrune::dialogs {

QString readableText(std::string_view utf8) {
  std::string readable;
  LineSplitter lines(utf8);
  for (std::string_view line; lines.next(line);) readable += withoutControls(line, true) + '\n';
  if (!readable.empty()) readable.pop_back();
  return QString::fromStdString(readable);
}

QString readableLine(std::string_view utf8) {
  return QString::fromStdString(withoutControls(utf8));
}

QString withoutMnemonics(QString text) {
  return text.replace(QLatin1Char('&'), QStringLiteral("&&"));
}

}  // namespace kestrune::dialogs
