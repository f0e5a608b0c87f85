#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ports/Alert.h"

namespace kestrune {

inline constexpr auto terminalRule = "────────────────────────────";

/// How text is emphasised on a terminal.
struct TextStyles {
  bool enabled = false;  ///< without styles, text stays as it is

  std::string bold(const std::string& text) const { return enabled ? "\033[1m" + text + "\033[0m" : text; }
  std::string faint(const std::string& text) const { return enabled ? "\033[2m" + text + "\033[0m" : text; }
};

/// An alert as a dialogue in lines: prints its view from top to bottom, asks for each field where it stands,
/// and at the end for a button. Does no input or output itself. Main thread.
class TerminalDialogue {
 public:
  /// `givenColors`: pictures may use colours. `givenColumns` and `givenRows`: the size of the terminal; 0: unknown.
  TerminalDialogue(Alert givenAlert, TextStyles givenStyles, bool givenColors, int givenColumns,
                   int givenRows);
  TerminalDialogue(const TerminalDialogue&) = delete;
  TerminalDialogue& operator=(const TerminalDialogue&) = delete;

  /// What to print at first.
  std::string begin();

  struct Step {
    std::string text{};                   ///< to print
    std::optional<AlertAnswer> answer{};  ///< set at the end of the dialogue
    std::string action{};                 ///< to be performed now by the alert's target; empty: none
  };
  /// Takes the user's answer to the last question.
  Step take(const std::string& line);

  /// What to print above the open question when it is asked again.
  std::string again() const;

  /// The open question.
  std::string question() const;
  bool asksForField() const { return next < parts.size(); }
  /// Whether the terminal must not echo the answer.
  bool asksForSecret() const;

 private:
  void collect(const View& view);
  std::string advance();
  std::string textOf(const View& view) const;
  std::string picture(const Image& image) const;

  const Alert alert;
  const TextStyles styles;
  const bool colors;
  const int columns;
  const int rows;
  std::vector<const View*> parts;    ///< labels and fields of the alert's view
  std::vector<const View*> buttons;  ///< inside the view; numbered after those of the alert
  const View* image = nullptr;       ///< printed last, so that nothing scrolls it away
  std::size_t next = 0;              ///< the index of the part that is asked for
  std::map<std::string, std::string> fields;
};

}  // namespace kestrune
