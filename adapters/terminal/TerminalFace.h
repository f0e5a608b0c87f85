#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/terminal/StandardStreams.h"
#include "adapters/terminal/TerminalDialogue.h"
#include "ports/Desktop.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// The user interface in a terminal: prints the menu and the alerts on standard output, for machines and
/// sessions without a desktop. The user types the number of a row, or its key. A terminal gets the whole menu
/// once, and later only changed rows. A pipe gets the whole menu at each change. Main thread.
class TerminalFace final : public StatusItem, public AlertQueue, public Notifications {
 public:
  /// `styled`: text may be bold or faint. `colored`: pictures may use colours. Both count only if the output
  /// is a terminal. `givenLoop` and `givenDesktop` must outlive this object.
  TerminalFace(EventLoop& givenLoop, bool styled, bool colored, Notifications& givenDesktop);

  void addToStatusBar(double length) override;
  bool hasButton() const override { return true; }
  void setButton(const StatusButton& button) override;
  void setMenu(Menu newMenu) override;

  void requestAuthorization(unsigned options) override { desktop.requestAuthorization(options); }
  /// Passes the notification to the desktop and also prints it above the menu, because there may be no
  /// desktop. If an alert is open, prints the notification only after the alert is answered. Of several equal
  /// notifications that have not been printed yet, prints only one.
  void add(const Notification& notification) override;
  void withdraw(const std::string& identifier) override { desktop.withdraw(identifier); }

  /// Drops all alerts and does not call their completions. Restores the terminal's echo. Called before the
  /// process exits.
  void close();

  /// Makes descriptor 0 the standard input again, for the program that execve starts. Since the constructor,
  /// this object reads the input through another descriptor, and descriptor 0 is "/dev/null". Call this just
  /// before execve.
  void giveBackInput() const { input.giveBack(); }

  /// Prints the whole menu. Discards what the user has begun to type at the menu's prompt, because the new
  /// prompt does not show it. Text that is being typed into an open alert is kept.
  void printMenu();

 private:
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

  std::string title, shownTitle;  ///< the client's state in one line: now, and as last printed
  Menu menu, shownMenu;
  std::string news;  ///< notifications that will be printed above the menu, a line each
  bool printPending = false;
  std::size_t prompts = 0;  ///< number of prompts printed so far

  std::vector<std::unique_ptr<TerminalDialogue>> dialogues;  ///< one dialogue for each open alert
  EventSource resized, redraw;
};

}  // namespace kestrune
