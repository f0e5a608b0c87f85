#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ports/Alert.h"

namespace kestrune {

inline constexpr auto terminalRule = "────────────────────────────";

/// Escape sequences for the text on a terminal.
struct TextStyles {
  bool enabled = false;  ///< false: print no escape sequence

  std::string bold(const std::string& text) const { return enabled ? "\033[1m" + text + "\033[0m" : text; }
  std::string faint(const std::string& text) const { return enabled ? "\033[2m" + text + "\033[0m" : text; }
};

/// The dialogue of an alert on a terminal, line by line. The caller prints the returned texts and questions,
/// and passes the user's answers to `take`. There is one question per field of the alert's view, from top to
/// bottom, and a last one for the number of a button. Main thread.
class TerminalDialogue {
 public:
  /// `givenColumns`, `givenRows`: the terminal's size; 0: unknown.
  TerminalDialogue(Alert givenAlert, TextStyles givenStyles, int givenColumns, int givenRows)
      : alert(std::move(givenAlert)), styles(givenStyles), columns(givenColumns), rows(givenRows) {
    for (const auto& title : alert.buttons) buttons.emplace_back(title, "");
    if (alert.accessoryView) collect(*alert.accessoryView);
  }
  TerminalDialogue(const TerminalDialogue&) = delete;

  /// Returns the text to print first.
  std::string begin();

  struct Step {
    std::string text{};                   ///< empty if there is an answer or an action
    std::optional<AlertAnswer> answer{};  ///< set when the dialogue has ended
    std::string action{};                 ///< the action to perform on `Alert::target`; empty: none
  };
  /// Takes the user's answer to the open question, and returns what to do next.
  Step take(const std::string& line);

  /// Returns the text to print above the open question when this question is asked again.
  std::string again() const;
  /// Call this when the terminal has another size. The next `again` draws the image for this size.
  void resize(int newColumns, int newRows) {
    columns = newColumns;
    rows = newRows;
  }

  std::string question() const;
  bool asksForField() const { return next < parts.size(); }
  /// Returns whether the terminal must not echo the answer.
  bool asksForSecret() const { return asksForField() && parts[next]->kind == ViewKind::secureTextField; }

 private:
  void collect(const View& view);
  std::string advance();
  std::string textOf(const View& view) const;
  std::string picture() const;

  const Alert alert;
  const TextStyles styles;
  int columns, rows;
  std::vector<const View*> parts;  ///< the labels and fields of the alert's view
  /// Titles and actions: the alert's own buttons, which have no action, and then the buttons inside the view.
  std::vector<std::pair<std::string, std::string>> buttons;
  const Image* image = nullptr;  ///< printed below all texts, so that it stays on the screen
  std::size_t next = 0;          ///< the index of the part that is printed or asked for next
  std::map<std::string, std::string> fields;
};

}  // namespace kestrune
