#include "adapters/terminal/TerminalDialogue.h"

#include <algorithm>

#include "text/Text.h"

namespace kestrune {

constexpr auto emptyingWord = "清空";

/// In a cell with colours, this block is the lower pixel, and the background is the upper pixel. The upper
/// half block "▀" is not used there, because many fonts leave a gap above it.
constexpr auto lowerHalf = "▄";
/// Escape sequences for black and white, which do not depend on the terminal's colour scheme. The indices say
/// whether the upper pixel and the lower pixel are dark.
constexpr const char* cellColors[2][2] = {{"\033[38;5;231;48;5;231m", "\033[38;5;16;48;5;231m"},
                                          {"\033[38;5;231;48;5;16m", "\033[38;5;16;48;5;16m"}};
/// The characters for a cell without colours, by the same indices, for light text on a dark screen.
constexpr const char* lightBlocks[2][2] = {{"█", "▀"}, {"▄", " "}};

static bool isField(const View& view) {
  return view.kind == ViewKind::textField || view.kind == ViewKind::secureTextField;
}

static bool isDark(const Bitmap& bitmap, int column, int row) {
  if (row >= bitmap.height) return false;
  constexpr int middle = 128;
  const auto at = 4 * static_cast<std::size_t>(row * bitmap.width + column);
  return bitmap.rgba[at] < middle && bitmap.rgba[at + 3] >= middle;
}

void TerminalDialogue::collect(const View& view) {
  if (view.kind == ViewKind::button) buttons.emplace_back(view.text, view.action);
  if (view.kind == ViewKind::image && view.image) image = view.image.get();
  if (isField(view)) {
    // Drop a label with the same text as the field's `accessibilityLabel`, which `question` prints.
    if (!parts.empty() && parts.back()->kind == ViewKind::label &&
        parts.back()->text == view.accessibilityLabel) {
      parts.pop_back();
    }
    fields[view.identifier] = view.text;
  }
  if (isField(view) || view.kind == ViewKind::label) parts.push_back(&view);
  for (const auto& child : view.children) collect(child);
}

std::string TerminalDialogue::begin() {
  const std::string mark = alert.style == AlertStyle::warning ? "⚠ " : "ℹ ";
  std::string text = "\n" + styles.bold(mark + displayRow(alert.messageText)) + "\n" + terminalRule + "\n";
  LineSplitter lines(alert.informativeText);
  for (std::string_view line; lines.next(line);) text += withoutControls(line) + "\n";
  if (!fields.empty())
    text += "（每一欄按 Enter 保留原值，輸入「" + std::string(emptyingWord) + "」清除。）\n";
  return text + "\n" + advance();
}

/// Moves `next` to the next field, and returns the text before this field. If no field is left, returns the
/// rest of the text, the line of buttons and the image.
std::string TerminalDialogue::advance() {
  std::string text;
  for (; next < parts.size() && !isField(*parts[next]); ++next) text += textOf(*parts[next]);
  return text + again();
}

/// Returns the line of buttons and the image. While the dialogue asks for a field, returns an empty string.
std::string TerminalDialogue::again() const {
  if (asksForField()) return "";
  std::string text;
  for (std::size_t i = 0; i < buttons.size(); ++i)
    text += "[" + std::to_string(i + 1) + "] " + displayRow(buttons[i].first) + "  ";
  return text + "\n" + (image != nullptr ? picture() : "");
}

TerminalDialogue::Step TerminalDialogue::take(const std::string& line) {
  const std::string answer(trimmed(line));
  if (asksForField()) {
    const View& field = *parts[next++];
    if (!answer.empty()) fields[field.identifier] = answer == emptyingWord ? "" : line;
    return {.text = advance()};
  }
  // An empty line presses the first button.
  const std::string number = answer.empty() ? "1" : answer;
  for (std::size_t i = 0; i < buttons.size(); ++i) {
    if (std::to_string(i + 1) != number) continue;
    if (i < alert.buttons.size()) return {.answer = AlertAnswer{i, fields}};
    return {.action = buttons[i].second};
  }
  return {.text = "請輸入按鈕編號。\n"};
}

std::string TerminalDialogue::question() const {
  if (!asksForField()) return "按鈕編號> ";
  const View& field = *parts[next];
  // If .env has CR LF line ends, the value includes the lines that follow it, which may hold secrets. So show
  // only its first line.
  std::string_view line;
  LineSplitter(field.text).next(line);
  const std::string value = displayRow(line) + (line.size() < field.text.size() ? " …" : "");
  const std::string name = displayRow(field.accessibilityLabel);
  if (asksForSecret()) return name + (value.empty() ? "（未填，輸入時不顯示）" : "（已填，不顯示）") + "> ";
  return name + (value.empty() ? "（未填）" : "［" + value + "］") + "> ";
}

std::string TerminalDialogue::textOf(const View& view) const {
  const std::string text = displayRow(view.text);
  if (view.fontWeight == FontWeight::semibold) return "\n" + styles.bold(text) + "\n";
  return (view.textColor == TextColor::secondary ? styles.faint(text) : text) + "\n";
}

/// Draws the largest bitmap that fits above the prompt. Each line of text shows two rows of pixels.
std::string TerminalDialogue::picture() const {
  const auto rowsFor = [](const Bitmap& bitmap) { return (bitmap.height + 1) / 2 + 1; };
  const auto& bitmaps = image->bitmaps;
  const auto fitting = std::find_if(bitmaps.rbegin(), bitmaps.rend(), [&](const Bitmap& each) {
    return (columns == 0 || each.width <= columns) && (rows == 0 || rowsFor(each) <= rows);
  });
  if (fitting == bitmaps.rend()) {
    // Print no picture: nobody can scan a QR code if the terminal cuts it off or wraps its lines.
    return "（終端機太小，圖放不下：需要 " + std::to_string(bitmaps.front().width) + " 欄、" +
           std::to_string(rowsFor(bitmaps.front())) + " 列。）\n";
  }
  const Bitmap& bitmap = *fitting;
  std::string text;
  for (int row = 0; row < bitmap.height; row += 2) {
    const char* last = nullptr;
    for (int column = 0; column < bitmap.width; ++column) {
      const bool above = isDark(bitmap, column, row);
      const bool below = isDark(bitmap, column, row + 1);
      const char* const wanted = cellColors[above][below];
      if (styles.enabled && std::exchange(last, wanted) != wanted) text += wanted;
      text += styles.enabled ? lowerHalf : lightBlocks[above][below];
    }
    if (styles.enabled) text += "\033[0m";
    text += "\n";
  }
  return text;
}

}  // namespace kestrune
