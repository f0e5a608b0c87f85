#pragma once

#include <string>
#include <variant>

#include "ports/Alert.h"
#include "ports/Menu.h"

// The protocol between the client and KestruneMenuDialogs: one JSON object per line. Requests go to the
// program's standard input, events come from its standard output. Each line contains `protocolVersion`,
// because after an upgrade one of the two running programs may be older. The value of an enumeration is
// encoded as a number.

namespace kestrune::dialogs {

inline constexpr int protocolVersion = 3;

/// Asks to show this alert on top of the open alerts. `id` is greater than 0 and was not used before.
struct ShowAlert {
  int id = 0;
  Alert alert;
};

/// Asks to bring all open windows to the front. The token lets one window take the focus: an open window or,
/// if no window is open, the next window that is shown.
struct Raise {
  std::string activationToken{};  ///< XDG_ACTIVATION_TOKEN; empty for no token
};

/// Asks to show this menu as a window, or to update the open menu. One process shows either a menu or alerts.
struct ShowMenu {
  Menu menu;
};

using Request = std::variant<ShowAlert, ShowMenu, Raise>;

// KestruneMenuDialogs exits with status 0 when its last window is closed. At the end of its standard input,
// KestruneMenuDialogs closes its windows without sending events, and exits with status 0. If the user closes
// the menu without a choice, KestruneMenuDialogs sends no event.

/// Says that a requested window has appeared on the screen.
struct Shown {
  int id = 0;  ///< identifier of the alert; 0 for the menu
};

/// Says that the user pressed the button with this `View::action` inside an alert. The alert stays open.
struct Pressed {
  int id = 0;
  std::string action;
};

/// Says that the alert was answered and closed.
struct Answered {
  int id = 0;
  AlertAnswer answer;
};

/// Says that a row of the menu was chosen, and the menu closed.
struct Chosen {
  int item = 0;
};

/// Says why the program cannot serve a request. The program exits after this event.
struct Refused {
  std::string reason;
};

using Event = std::variant<Shown, Pressed, Answered, Chosen, Refused>;

/// Returns the message as a line, without a line end. `Message` is Request or Event.
template <typename Message>
std::string encode(const Message& message);

/// Returns the message in `line`, or the reason why the line is invalid. `Message` is Request or Event. An
/// event with anything that `encode` would not write, such as an unknown member, is invalid.
template <typename Message>
std::variant<Message, std::string> decode(const std::string& line);

}  // namespace kestrune::dialogs
