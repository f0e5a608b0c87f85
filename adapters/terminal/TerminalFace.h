#pragma once

#include <list>
#include <optional>
#include <string>
#include <utility>

#include "adapters/alerts/AlertQueue.h"
#include "adapters/terminal/StandardStreams.h"
#include "adapters/terminal/TerminalDialogue.h"
#include "ports/Desktop.h"
#include "ports/StatusItem.h"

namespace kestrune {

/// The user interface without a desktop: prints the menu and the alerts on standard output. To choose a row
/// of the menu, the user types the row's number or its shortcut key. After a change of the menu, prints only
/// the changed rows on a terminal, but the whole menu into a pipe. Call its functions on the main thread.
class TerminalFace final : public StatusItem, public AlertQueue, public Notifications {
 public:
  /// `styled`: if standard output is a terminal, text may be bold or faint, and the image in an alert, such
  /// as a QR code, may be printed in colours. `givenLoop` and `givenDesktop` must outlive this object.
  TerminalFace(EventLoop& givenLoop, bool styled, Notifications& givenDesktop)
      : AlertQueue(givenLoop.mainQueue()),
        loop(givenLoop),
        desktop(givenDesktop),
        styles{styled && output.isTerminal()} {}

  void addToStatusBar(double length) override;
  bool hasButton() const override { return true; }
  void setButton(const StatusButton& button) override;
  void setMenu(Menu newMenu) override {
    if (std::exchange(menu, newMenu) != newMenu) changed();
  }

  void requestAuthorization(unsigned options) override { desktop.requestAuthorization(options); }
  /// Passes the notification to the desktop and also prints it above the menu, because there may be no
  /// desktop. If an alert is open, prints the notification only after the alert is answered. Of several equal
  /// notifications that have not been printed yet, prints only one.
  void add(const Notification& notification) override;
  void withdraw(const std::string& identifier) override { desktop.withdraw(identifier); }

  /// Drops all alerts without calling their completions, and restores the terminal's echo. Call this at exit.
  void close() {
    forget();
    dialogues.clear();
    input.hideTyping(false);
  }

  /// Makes descriptor 0 the standard input again (see `StandardInput`). Call this just before execve.
  void restoreInput() const { input.restore(); }

  /// Prints the whole menu. Discards what the user has begun to type at the menu's prompt, because the new
  /// prompt does not show it. Text that is being typed into an open alert is kept.
  void printMenu() {
    if (open.empty()) input.discardUnfinishedLine();
    prompt(wholeMenu());
  }

 private:
  void changed();
  std::string wholeMenu();
  std::string changes();
  std::string shownNow(const std::string& text);
  void handleLine(const std::optional<std::string>& line);
  void show(const Open& shown) override;
  void resume() override;
  void finishAlert(const AlertAnswer& given) {
    dialogues.pop_back();
    answer(open.back().id, given);
  }
  void prompt(std::string text = {});
  std::string row(const MenuItem& item) const;

  EventLoop& loop;
  Notifications& desktop;
  StandardOutput output{loop, STDOUT_FILENO};
  StandardInput input{loop};
  const TextStyles styles;
  bool inputEnded = false;

  std::string title, shownTitle;  ///< the client's state in one line: now, and as last printed
  Menu menu, shownMenu;
  std::string news;  ///< notifications that will be printed above the menu, a line each
  bool printPending = false;
  std::size_t prompts = 0;  ///< number of prompts printed so far

  std::list<TerminalDialogue> dialogues;  ///< one dialogue for each open alert
  EventSource resized, redraw;
};

}  // namespace kestrune
