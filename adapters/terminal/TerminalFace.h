#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/terminal/StandardStreams.h"
#include "adapters/terminal/TerminalDialogue.h"
#include "ports/Notifications.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// The menu and the alerts as text on standard output, for machines and sessions without a desktop. Reads the
/// number of a row, or its key. A terminal gets the menu once, and after a change only the rows that changed;
/// a pipe gets the whole menu with each change. Main thread.
class TerminalFace final : public StatusBar, public AlertQueue, public Notifications {
 public:
  /// `styled` and `colored`: if the output is a terminal, text may be bold or faint, and pictures may use
  /// colours. `desktop` outlives this.
  TerminalFace(EventLoop& givenLoop, bool styled, bool colored, Notifications& givenDesktop);

  /// Called once; the item refers to this.
  std::unique_ptr<StatusItem> statusItem(double length) override;

  void requestAuthorization(unsigned options) override { desktop.requestAuthorization(options); }
  /// Passes it to the desktop, and prints it above the menu, because there may be no desktop. While an alert
  /// is open it waits; a second one with the same text is not printed.
  void add(const Notification& notification) override;
  void withdraw(const std::string& identifier) override { desktop.withdraw(identifier); }

  /// Restores the terminal's settings. For the end of the process.
  void close();

  /// Makes standard input what it was at the start, for a program that replaces this process.
  void giveBackInput() const { input.giveBack(); }

  /// Prints the whole menu. Discards what the user has begun to type at the menu's prompt, because the new
  /// prompt does not show it. Text that is typed into an open alert stays.
  void printMenu();

 private:
  class Item;

  void changed();
  std::string wholeMenu();
  std::string changes();
  std::string shownNow(const std::string& text);
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
  std::string row(const MenuItem& item) const;

  EventLoop& loop;
  Notifications& desktop;
  StandardOutput output;
  StandardInput input;
  const TextStyles styles;
  const bool colors;
  bool inputEnded = false;

  std::string title, shownTitle;  ///< the button's tooltip: now, and when it was printed last
  Menu menu, shownMenu;
  std::string news;  ///< notifications to be printed above the menu, a line each
  bool printPending = false;
  std::size_t prompts = 0;  ///< printed so far

  std::vector<std::unique_ptr<TerminalDialogue>> dialogues;  ///< one for each open alert
  EventSource resized, redraw;
};

}  // namespace kestrune
