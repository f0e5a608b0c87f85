#include "dialogs/PlainText.h"

#include <QStringTokenizer>
#include <QStringView>
#include <QTextBoundaryFinder>
#include <string>

#include "text/Text.h"

namespace kestrune::dialogs {

constexpr qsizetype longestLine = 2000;  // UTF-16 units; longer lines are laid out too slowly
constexpr qsizetype lookBack = 64;       // UTF-16 units; a line break is searched so far before `longestLine`
const QString addedBreak = QStringLiteral("\u2060\n");

/// Returns where to break a line that is longer than `longestLine`. Searches the last `lookBack` units before
/// that limit: for a space, else for a place between two grapheme clusters (characters with their combining
/// marks). If one cluster fills all these units, breaks inside the cluster, but not inside a surrogate pair.
static qsizetype breakIn(QStringView line) {
  const auto window = line.mid(longestLine - lookBack, 2 * lookBack);
  const auto space = window.first(lookBack).lastIndexOf(QLatin1Char(' '));
  if (space >= 0) return longestLine - lookBack + space + 1;
  QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, window.constData(), window.size());
  finder.setPosition(lookBack);
  const auto between = finder.isAtBoundary() ? lookBack : finder.toPreviousBoundary();
  if (between > 0) return longestLine - lookBack + between;
  return window[lookBack].isLowSurrogate() ? longestLine - 1 : longestLine;
}

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

QString withLongLinesBroken(const QString& text) {
  QString broken;
  for (QStringView line : QStringView(text).tokenize(u'\n')) {
    while (line.size() > longestLine) {
      const auto at = breakIn(line);
      broken.append(line.first(at)).append(addedBreak);
      line = line.sliced(at);
    }
    broken.append(line).append(QLatin1Char('\n'));
  }
  broken.chop(1);
  return broken;
}

QString withoutAddedBreaks(QString text) {
  return text.remove(addedBreak);
}

}  // namespace kestrune::dialogs
