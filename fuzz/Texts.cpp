#include "text/Text.h"

#include "KestruneMenuClient/AppDelegate.h"
#include "fuzz/Fuzz.h"

// Fuzzes the functions of text/Text.h. The input has four parts: a byte (the limit for `shortened` and
// `withinBytes`), the arguments `from` and `to` of `replacingAll`, and the text for all functions.

namespace {

using namespace kestrune;
using fuzz::require;

void checkTrimming(std::string_view text) {
  const std::string_view inner = trimmed(text);
  const auto at = static_cast<std::size_t>(inner.data() - text.data());
  require(at + inner.size() <= text.size(), "trimmed text is a part of the text");
  require(trimmed(inner) == inner, "trimming twice changes nothing");
  require(trimmed(text.substr(0, at)).empty() && trimmed(text.substr(at + inner.size())).empty(),
          "only space is trimmed");
}

void checkLines(std::string_view text) {
  LineSplitter lines(text);
  const char* end = nullptr;
  for (std::string_view line; lines.next(line);) {
    if (end != nullptr) {
      const std::string_view separator(end, static_cast<std::size_t>(line.data() - end));
      require(!separator.empty() && trimmed(separator).empty(), "only line ends are between lines");
    } else {
      require(line.data() == text.data(), "the first line is where the text begins");
    }
    std::string_view whole;
    require(!LineSplitter(line).next(whole) || whole == line, "a line is one line");
    end = line.data() + line.size();
  }
  require(text.empty() ? end == nullptr : end == text.data() + text.size(),
          "the last line ends with the text");
}

void checkCuts(std::string_view text, std::size_t limit) {
  const std::string_view within = withinBytes(text, limit);
  require(within.size() <= limit && text.starts_with(within),
          "withinBytes() returns a prefix within the limit");
  const std::string cut = shortened(text, limit);
  require(cut == text || (cut.ends_with("...") && text.starts_with(cut.substr(0, cut.size() - 3))),
          "a cut ends with ...");
  require(shortened(cut, limit) == cut, "shortening twice changes nothing");
  if (!isValidUtf8(text)) return;
  require(isValidUtf8(within) && isValidUtf8(cut), "no UTF-8 sequence is cut");
  require(within.size() == text.size() || within.size() + 4 > limit,
          "withinBytes() cuts no more than one sequence too much");
}

void checkRows(std::string_view text) {
  const std::string plain = withoutControls(text);
  require(isValidUtf8(plain), "withoutControls() returns UTF-8");
  require(withoutControls(plain) == plain, "removing controls twice changes nothing");
  for (const char each : plain)
    require(static_cast<unsigned char>(each) >= ' ' && each != 0x7F, "no control character is left");
  const std::string row = displayRow(text);
  require(isValidUtf8(row) && displayRow(row) == row && shortened(row, 200) == row,
          "displayRow() twice changes nothing, and a row has at most 200 characters");
  const std::string name = AppDelegate::compactThreadName(text);
  require(shortened(name, 34) == name, "a thread's name has at most 34 characters");
}

void checkReplacing(std::string_view text, std::string_view from, std::string_view to) {
  if (from.empty()) return;
  require(replacingAll(text, from, from) == text, "replacing a part by itself changes nothing");
  const std::string replaced = replacingAll(text, from, to);
  const std::string gone = replacingAll(text, from, "");
  require((text.size() - gone.size()) % from.size() == 0, "whole parts are replaced");
  const std::size_t count = (text.size() - gone.size()) / from.size();
  require(replaced.size() == gone.size() + count * to.size(), "every part is replaced");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t limit = std::max<std::size_t>(input.byte(), 3);
  const std::string_view from = input.text();
  const std::string_view to = input.text();
  const std::string_view text = input.rest();
  checkTrimming(text);
  checkLines(text);
  checkCuts(text, limit);
  checkRows(text);
  checkReplacing(text, from, to);
  return 0;
}
