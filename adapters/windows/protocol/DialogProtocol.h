#pragma once

#include <string>
#include <variant>

#include "ports/Alert.h"
#include "ports/Menu.h"

// What the client and its dialogs program say to each other: one JSON object in each line, the client on the
// program's standard input, the program on its standard output. Both halves use these functions, but one may
// be older than the other after an upgrade: every line carries the version.

namespace kestrune::dialogs {

inline constexpr int protocolVersion = 1;

/// Show this alert: alone, or on top of those that are open. The identifier is new and greater than 0.
struct ShowAlert {
  int id = 0;
  Alert alert;
};

/// Bring all windows to the front. The token also serves the next window that is shown.
struct Raise {
  std::string activationToken{};  ///< by which the desktop allows it (xdg-activation); empty: none
};

/// Show this menu as a window, or change the one that shows to it. A process shows alerts or a menu, not
/// both.
struct ShowMenu {
  Menu menu;
};

using Request = std::variant<ShowAlert, ShowMenu, Raise>;

// The program ends by itself, with status 0, when its last window is answered or its standard input ends,
// which closes the windows without an answer. A menu that is closed without a choice ends it without an
// event.

/// The window is on the screen.
struct Shown {
  int id = 0;  ///< of the alert; 0 for the menu
};

/// A button inside an alert's view was pressed.
struct Pressed {
  int id = 0;
  std::string action;
};

/// The alert is answered and gone.
struct Answered {
  int id = 0;
  AlertAnswer answer;
};

/// A row of the menu was chosen.
struct Chosen {
  int item = 0;
};

/// The program cannot do what it was asked for; it ends.
struct Refused {
  std::string reason;
};

using Event = std::variant<Shown, Pressed, Answered, Chosen, Refused>;

/// The line, without its end.
std::string encode(const Request& request);
std::string encode(const Event& event);

/// What a line says, or, when it cannot be understood, why.
std::variant<Request, std::string> decodeRequest(const std::string& line);
std::variant<Event, std::string> decodeEvent(const std::string& line);

}  // namespace kestrune::dialogs
