#pragma once

#include <memory>
#include <string>
#include <vector>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/terminal/TerminalDialogue.h"
#include "adapters/terminal/TerminalInput.h"
#include "adapters/terminal/TerminalOutput.h"
#include "ports/Notifications.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// The menu and the alerts as text, for machines and sessions without a desktop. Prints the menu whenever it
/// changes; takes the number of a row or its key. Main thread.
class TerminalFace final : public StatusBar, public AlertQueue, public Notifications {
 public:
  /// `styled` and `colored`: may use styles, and colours where there is no doing without, if the output is a
  /// terminal. `desktop` outlives this.
  TerminalFace(EventLoop& loop, bool styled, bool colored, Notifications& desktop);

  /// The only one; it refers to this.
  std::unique_ptr<StatusItem> statusItem(double length) override;

  void requestAuthorization(unsigned options) override { desktop.requestAuthorization(options); }
  /// Hands it to the desktop, and prints it above the menu: a terminal often has no desktop. While an alert
  /// is open it waits, and a second one with the same text adds nothing.
  void add(const Notification& notification) override;
  void withdraw(const std::string& identifier) override { desktop.withdraw(identifier); }

  /// Leaves the terminal as it was found. For the end of the process.
  void close();

  /// Gives standard input back, for a program that takes over this process.
  void giveBackInput() const { input.giveBack(); }

  /// Prints the menu again, changed or not. What the user has begun to type at its prompt is discarded: the
  /// prompt that is printed does not show it. What is typed into an open alert stays.
  void printMenu();

 private:
  class Item;

  void changed();
  void writeMenu();
  void handleLine(const std::optional<std::string>& line);
  void refuseLine();
  void choose(const std::string& text);
  void show(const Open& shown) override;
  void raise() override {}
  void resume() override;
  void answerAlert(const std::string& line);
  std::string endOfUnseenLine() const;
  void finishAlert(const AlertAnswer& answer);
  void prompt(std::string text = {});
  std::string row(std::size_t number, const MenuItem& item) const;
  std::string styled(const char* style, const std::string& text) const;

  Notifications& desktop;
  TerminalOutput output;
  TerminalInput input;
  const TerminalAbilities abilities;  ///< but for the columns, which change
  bool inputEnded = false;

  std::string title;  ///< the button's tooltip
  Menu menu;
  std::string news;  ///< notifications to be printed with the menu, a line each
  bool printPending = false;
  std::size_t prompts = 0;  ///< given so far

  std::vector<std::unique_ptr<TerminalDialogue>> dialogues;  ///< one for each open alert
};

}  // namespace kestrune
