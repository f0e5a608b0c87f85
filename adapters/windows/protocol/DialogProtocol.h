#pragma once

#include <string>
#include <variant>

#include "ports/Alert.h"
#include "ports/Menu.h"

// The protocol between the client and KestruneMenuDialogs: one JSON object per line, requests on the
// program's standard input, events on its standard output. Both programs link these functions. After an
// upgrade one may be older than the other, so every line carries the version.

namespace kestrune::dialogs {

inline constexpr int protocolVersion = 2;

/// Show this alert, on top of the open ones. The identifier is new and greater than 0.
struct ShowAlert {
  int id = 0;
  Alert alert;
};

/// Bring all windows to the front. The token also activates the next window that is shown.
struct Raise {
  std::string activationToken{};  ///< XDG_ACTIVATION_TOKEN; empty for none
};

/// Show this menu as a window, or update the open one. A process shows alerts or a menu, not both.
struct ShowMenu {
  Menu menu;
};

using Request = std::variant<ShowAlert, ShowMenu, Raise>;

// The program exits with status 0 when its last window is answered, or at the end of its standard input,
// which closes the windows without an answer. A menu that is closed without a choice sends no event.

/// The window is on the screen.
struct Shown {
  int id = 0;  ///< of the alert; 0 for the menu
};

/// A button inside an alert's view was pressed.
struct Pressed {
  int id = 0;
  std::string action;
};

/// The alert was answered and closed.
struct Answered {
  int id = 0;
  AlertAnswer answer;
};

/// A row of the menu was chosen.
struct Chosen {
  int item = 0;
};

/// The program cannot serve a request; it exits.
struct Refused {
  std::string reason;
};

using Event = std::variant<Shown, Pressed, Answered, Chosen, Refused>;

/// Returns the line without a line end.
std::string encode(const Request& request);
std::string encode(const Event& event);

/// The message in a line, or the reason why it is invalid.
std::variant<Request, std::string> decodeRequest(const std::string& line);
std::variant<Event, std::string> decodeEvent(const std::string& line);

}  // namespace kestrune::dialogs
