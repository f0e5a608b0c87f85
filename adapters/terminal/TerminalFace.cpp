#include "adapters/terminal/TerminalFace.h"

#include <algorithm>
#include <csignal>

#include "text/Text.h"

namespace kestrune {

void TerminalFace::addToStatusBar(double) {
  input.start({.onLine = [this](const std::optional<std::string>& line) { handleLine(line); },
               .onEnd =
                   [this] {
                     inputEnded = true;
                     if (input.isTerminal())
                       output.write(
                           "\n輸入已結束。要退出，請按 Ctrl+C，或執行 KestruneMenuClient --perform quit。\n");
                     if (!open.empty()) finishAlert({});
                   },
               .onContinued = [this] { open.empty() ? printMenu() : resume(); }});
  if (!output.isTerminal()) return;
  // While a window is being resized, many SIGWINCH arrive. Redraw only after a pause without SIGWINCH.
  resized = loop.onSignal(SIGWINCH, [this] {
    redraw = loop.after(Seconds{0.2}, [this] {
      if (open.empty()) return printMenu();
      if (!dialogues.back().asksForField()) resume();
    });
  });
}

void TerminalFace::setButton(const StatusButton& button) {
  std::string text = displayRow(button.toolTip.value_or(button.title));
  if (std::exchange(title, text) != text) changed();
}

void TerminalFace::add(const Notification& notification) {
  desktop.add(notification);
  const std::string line = "\n" + withoutControls(notification.title + "：" + notification.body) + "\n";
  if (news.find(line) == std::string::npos) news += line;
  changed();
}

/// Queues a job that prints all changes since the last print. While an alert is open, the job prints nothing,
/// because the last lines on the terminal belong to the alert. After the answer, `resume` prints the changes.
void TerminalFace::changed() {
  if (std::exchange(printPending, true)) return;
  queue.async([this] {
    if (!printPending || !open.empty()) return;
    std::string text = changes();
    if (text.empty()) return;
    input.discardUnfinishedLine();
    prompt(std::move(text));
  });
}

std::string TerminalFace::wholeMenu() {
  const std::string heading = styles.bold(title) + "\n";
  std::string text = "\n" + heading + terminalRule + "\n";
  for (const auto& item : menu.items) text += row(item);
  // If the menu is higher than the terminal, its top is not visible. So repeat the title, which shows the
  // client's state, below the menu.
  const auto lines = std::count(text.begin(), text.end(), '\n');
  const int height = output.size().ws_row;
  return shownNow(height > 0 && lines >= height ? text + heading : text);
}

/// Returns the lines that have changed since they were last printed; the whole menu if the number of rows has
/// changed. A pipe gets the whole menu each time, because its reader may keep only the latest output.
std::string TerminalFace::changes() {
  if (!output.isTerminal() || shownMenu.items.size() != menu.items.size()) return wholeMenu();
  std::string text = title == shownTitle ? "" : styles.bold(title) + "\n";
  for (std::size_t i = 0; i < menu.items.size(); ++i) {
    if (menu.items[i] != shownMenu.items[i]) text += row(menu.items[i]);
  }
  return shownNow(text.empty() ? text : "\n" + text);
}

/// Returns the waiting notifications and `text`. From now on, the present menu and title count as printed.
std::string TerminalFace::shownNow(const std::string& text) {
  printPending = false;
  shownTitle = title;
  shownMenu = menu;
  return std::exchange(news, {}) + text;
}

std::string TerminalFace::row(const MenuItem& item) const {
  std::string text = (item.id < 10 ? " " : "") + std::to_string(item.id);
  if (item.isSeparator) return styles.faint(text + "      " + terminalRule) + "\n";
  text += "  " + (item.keyEquivalent.empty() ? " " : item.keyEquivalent) + " ";
  text += item.checked ? (*item.checked ? "✓ " : "✗ ") : "  ";
  text += displayRow(item.title);
  return (item.enabled ? text : styles.faint(text)) + "\n";
}

/// Prints text and prompt in one write. While the terminal accepts no output, StandardOutput buffers bytes up
/// to a limit, and then drops writes. So two writes could print the text without the prompt.
void TerminalFace::prompt(std::string text) {
  ++prompts;
  const TerminalDialogue* const dialogue = dialogues.empty() ? nullptr : &dialogues.back();
  input.hideTyping(dialogue != nullptr && dialogue->asksForSecret());
  if (input.isTerminal() && !inputEnded) {
    text += dialogue != nullptr ? dialogue->question() : "列號或按鍵> ";
  } else if (dialogue != nullptr && dialogue->asksForField()) {
    text += dialogue->question() + "\n";
  }
  output.write(text);
}

void TerminalFace::handleLine(const std::optional<std::string>& line) {
  // A terminal does not echo the line end of a secret.
  const bool isUnseen = input.isTerminal() && !open.empty() && dialogues.back().asksForSecret();
  const std::string lineEnd = isUnseen ? "\n" : "";
  if (!line) {
    // The line is too long, so the same prompt is printed again. On a terminal, or while an alert is open,
    // discard the lines after the long line: the next of them would be taken as the answer to this prompt.
    // Otherwise, keep these lines: in a pipe or a file, each line is a menu command of its own.
    if (input.isTerminal() || !open.empty()) input.discardTyped();
    return prompt(lineEnd + "這一行太長，沒有採用：最多 " + std::to_string(input.longestLine()) +
                  " 個位元組。請重新輸入。\n");
  }
  if (!open.empty()) {
    const auto step = dialogues.back().take(*line);
    if (step.answer) return finishAlert(*step.answer);
    if (!step.action.empty()) return press(open.back().id, step.action);
    return prompt(lineEnd + step.text);
  }
  const std::string text(trimmed(*line));
  if (text.empty() || text == "?") return prompt(wholeMenu());
  const auto chosen = std::find_if(menu.items.begin(), menu.items.end(), [&text](const MenuItem& item) {
    return std::to_string(item.id) == text || item.keyEquivalent == text;
  });
  if (chosen == menu.items.end()) return prompt("沒有這一列：" + displayRow(text) + "\n");
  if (chosen->action.empty() || !chosen->enabled)
    return prompt("這一列只供查看：" + displayRow(chosen->title) + "\n");
  performMenuItem(MenuItem(*chosen));
  // The action may print a prompt, at once or in a job that it queues. If no prompt was printed, print one.
  queue.async([this, before = prompts] {
    if (prompts == before && open.empty()) prompt();
  });
}

void TerminalFace::show(const Open& shown) {
  if (dialogues.empty()) input.discardUnfinishedLine();  // the line was typed for the menu
  const winsize size = output.size();
  std::string text = dialogues.emplace_back(shown.alert, styles, size.ws_col, size.ws_row).begin();
  if (!inputEnded) return prompt(std::move(text));
  output.write(text);
  finishAlert({});
}

void TerminalFace::resume() {
  if (open.empty()) return prompt(printPending ? changes() : "");
  if (inputEnded) return finishAlert({});
  const winsize size = output.size();
  dialogues.back().resize(size.ws_col, size.ws_row);
  prompt(dialogues.back().again());
}

}  // namespace kestrune
