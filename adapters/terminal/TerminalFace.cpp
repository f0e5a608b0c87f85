#include "adapters/terminal/TerminalFace.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "adapters/terminal/TerminalText.h"
#include "text/Text.h"

namespace kestrune {

class TerminalFace::Item final : public StatusItem {
 public:
  explicit Item(TerminalFace& givenFace) : face(givenFace) {}

  bool hasButton() const override { return true; }

  void setButton(const StatusButton& button) override {
    std::string text = displayRow(button.toolTip.value_or(button.title));
    if (text == face.title) return;
    face.title = std::move(text);
    face.changed();
  }

  void setMenu(Menu changed) override {
    const bool same = changed == face.menu;
    face.menu = std::move(changed);
    if (!same) face.changed();
  }

 private:
  TerminalFace& face;
};

TerminalFace::TerminalFace(EventLoop& loop, bool mayStyle, bool mayColor, Notifications& givenDesktop)
    : AlertQueue(loop.mainQueue()),
      desktop(givenDesktop),
      output(loop, STDOUT_FILENO),
      input(loop),
      abilities{.styles = mayStyle && output.isTerminal(), .colors = mayColor && output.isTerminal()} {}

std::unique_ptr<StatusItem> TerminalFace::statusItem(double) {
  input.start([this](const std::optional<std::string>& line) { handleLine(line); },
              [this] {
                inputEnded = true;
                if (!open.empty()) finishAlert({});
              });
  return std::make_unique<Item>(*this);
}

void TerminalFace::add(const Notification& notification) {
  desktop.add(notification);
  const std::string line = "\n" + withoutControls(notification.title + "：" + notification.body) + "\n";
  if (news.find(line) == std::string::npos) news += line;
  changed();
}

/// Button and menu change together: one print for both. An open alert keeps the last lines for itself; the
/// menu follows when it is answered.
void TerminalFace::changed() {
  if (std::exchange(printPending, true)) return;
  queue.async([this] {
    if (printPending && open.empty()) printMenu();
  });
}

void TerminalFace::printMenu() {
  if (open.empty()) input.discardUnfinishedLine();
  writeMenu();
}

void TerminalFace::writeMenu() {
  printPending = false;
  std::string text = std::exchange(news, {}) + "\n" + styled(boldStyle, title) + "\n" + terminalRule + "\n";
  for (std::size_t i = 0; i < menu.items.size(); ++i) text += row(i + 1, menu.items[i]);
  prompt(std::move(text));
}

std::string TerminalFace::row(std::size_t number, const MenuItem& item) const {
  std::string text = std::to_string(number);
  text.insert(0, text.size() < 2 ? 2 - text.size() : 0, ' ');
  if (item.isSeparator) return styled(dimStyle, text + "      " + terminalRule) + "\n";
  text += "  " + (item.keyEquivalent.empty() ? " " : item.keyEquivalent) + " ";
  text += item.checked ? (*item.checked ? "✓ " : "✗ ") : "  ";
  text += displayRow(item.title);
  return (item.enabled ? text : styled(dimStyle, text)) + "\n";
}

/// Both in one piece: of two, the second is dropped when a slow terminal has too much of the first to read.
void TerminalFace::prompt(std::string text) {
  ++prompts;
  const TerminalDialogue* const dialogue = dialogues.empty() ? nullptr : dialogues.back().get();
  input.hideTyping(dialogue != nullptr && dialogue->asksForSecret());
  if (input.isTerminal()) {
    text += dialogue != nullptr ? dialogue->question() : "列號或按鍵> ";
  } else if (dialogue != nullptr && dialogue->asksForField()) {
    text += dialogue->question() + "\n";
  }
  output.write(text);
}

void TerminalFace::handleLine(const std::optional<std::string>& line) {
  if (!line) return refuseLine();
  const std::string text(trimmed(*line));
  if (!open.empty()) {
    answerAlert(*line);
  } else if (text.empty()) {
    writeMenu();
  } else {
    choose(text);
  }
}

void TerminalFace::refuseLine() {
  // What was typed or written behind it answers later questions, not this one once more.
  if (input.isTerminal() || !open.empty()) input.discardTyped();
  prompt(endOfUnseenLine() + "這一行太長，沒有採用：最多 " + std::to_string(input.longestLine()) +
         " 個位元組。請重新輸入。\n");
}

void TerminalFace::choose(const std::string& text) {
  const auto number = numberIn(text);
  const auto chosen = number
                          ? (*number >= 1 && *number <= menu.items.size()
                                 ? menu.items.begin() + static_cast<std::ptrdiff_t>(*number - 1)
                                 : menu.items.end())
                          : std::find_if(menu.items.begin(), menu.items.end(), [&text](const MenuItem& item) {
                              return !item.keyEquivalent.empty() && item.keyEquivalent == text;
                            });
  if (chosen == menu.items.end()) {
    prompt("沒有這一列：" + displayRow(text) + "\n");
  } else if (chosen->action.empty() || !chosen->enabled) {
    prompt("這一列只供查看：" + displayRow(chosen->title) + "\n");
  } else {
    performMenuItem(MenuItem(*chosen));
    // What it leads to may take a while, or be seen elsewhere.
    queue.async([this, before = prompts] {
      if (prompts == before && open.empty()) prompt();
    });
  }
}

void TerminalFace::show(const Open& shown) {
  if (dialogues.empty()) input.discardUnfinishedLine();  // typed for the menu
  TerminalAbilities present = abilities;
  present.columns = output.size().ws_col;
  present.rows = output.size().ws_row;
  dialogues.push_back(std::make_unique<TerminalDialogue>(shown.alert, present));
  std::string text = dialogues.back()->begin();
  if (!inputEnded) return prompt(std::move(text));
  output.write(text);
  finishAlert({});
}

void TerminalFace::answerAlert(const std::string& line) {
  TerminalDialogue& dialogue = *dialogues.back();
  std::string text = endOfUnseenLine();
  const auto step = dialogue.take(line);
  text += step.text;
  if (step.answer) {
    output.write(text);
    return finishAlert(*step.answer);
  }
  if (!step.action.empty()) {
    output.write(text);
    return press(open.back().id, step.action);
  }
  prompt(std::move(text));
}

/// The end of a line that the terminal did not show was not shown either.
std::string TerminalFace::endOfUnseenLine() const {
  return input.isTerminal() && !dialogues.empty() && dialogues.back()->asksForSecret() ? "\n" : "";
}

void TerminalFace::finishAlert(const AlertAnswer& given) {
  dialogues.pop_back();
  answer(open.back().id, given);
}

void TerminalFace::resume() {
  if (!open.empty()) {
    if (inputEnded) return finishAlert({});
    prompt(dialogues.back()->again());
  } else if (printPending) {
    writeMenu();
  } else {
    prompt();
  }
}

void TerminalFace::close() {
  forget();
  dialogues.clear();
  input.hideTyping(false);
}

std::string TerminalFace::styled(const char* style, const std::string& text) const {
  return abilities.styles ? style + text + plainStyle : text;
}

}  // namespace kestrune
