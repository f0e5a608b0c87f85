#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "adapters/terminal/TerminalText.h"
#include "ports/Alert.h"

namespace kestrune {

/// An alert as a conversation: what stands in it from top to bottom, its fields asked for one after the other
/// where they stand, and at the end its buttons. Knows no terminal; main thread.
class TerminalDialogue {
 public:
  /// For a terminal with these abilities.
  TerminalDialogue(Alert alert, TerminalAbilities abilities);
  TerminalDialogue(const TerminalDialogue&) = delete;
  TerminalDialogue& operator=(const TerminalDialogue&) = delete;

  /// What to print at first.
  std::string begin();

  struct Step {
    std::string text{};                   ///< to print
    std::optional<AlertAnswer> answer{};  ///< there when the conversation is over
    std::string action{};                 ///< of the alert's target, to be performed now; empty: none
  };
  /// Takes the user's answer to the last question.
  Step take(const std::string& line);

  /// What to print when the user comes back to it from elsewhere.
  std::string again() const;

  /// The question that is open.
  std::string question() const;
  bool asksForField() const { return next < parts.size(); }
  /// Whether the answer to it must not be seen.
  bool asksForSecret() const;

 private:
  void collect(const View& view);
  std::string advance();
  std::string textOf(const View& view) const;
  std::string picture(const Image& image) const;
  std::string buttonLine() const;
  std::string styled(const char* style, const std::string& text) const;

  const Alert alert;
  const TerminalAbilities abilities;
  std::vector<const View*> parts;    ///< of the alert's view, what is printed or asked for
  std::vector<const View*> buttons;  ///< inside the view; numbered after those of the alert
  const View* image = nullptr;       ///< printed last, so that nothing scrolls it away
  std::size_t next = 0;              ///< the part that is asked for
  std::map<std::string, std::string> fields;
};

}  // namespace kestrune
