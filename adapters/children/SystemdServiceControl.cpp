#include "adapters/children/SystemdServiceControl.h"

namespace kestrune {

// Does not wait for the unit and asks for no password. All lines of a script share the shell, and so the
// variable: once the service manager has not answered for a second (timeout exits with 124), the other units
// get a fifth each, because the lines below need their part of the time. Few backends have all of these
// units: errors are not shown.
std::string SystemdServiceControl::unloadLine(const std::string& label) const {
  return "timeout --foreground ${unload_limit:-1} systemctl --user --no-block --no-ask-password stop " +
         label + ".service 2>/dev/null || [ $? != 124 ] || unload_limit=0.2 || true";
}

// The first character is in brackets so that the pattern does not match the shell that runs the line, whose
// command line contains it. The folder of the client may contain the pattern too. So the line spares the
// client, which is the parent of the shell, and every command line that names the client or its windows: open
// windows, an instance that waits to take over, a bar's --status, the terminal that the client runs in.
// /proc/PID/cmdline separates arguments by NUL, as grep -z reads them.
std::string SystemdServiceControl::endMatchingLine(const std::string& pattern) const {
  return "for pid in $(pgrep -f '[" + pattern.substr(0, 1) + "]" + pattern.substr(1) +
         "'); do [ $pid = $PPID ] || "
         "grep -sqzE '(^|/)KestruneMenu(Client|Dialogs)( |$)' /proc/$pid/cmdline || "
         "kill $pid 2>/dev/null; done || true";
}

// Listeners only: clients of the port, such as a browser, are left alone. The client listens on no TCP port,
// and leaves its requests to the port to a curl.
std::string SystemdServiceControl::killListenersLine(int port) const {
  return "lsof -ti tcp:" + std::to_string(port) + " -sTCP:LISTEN | xargs -r kill -9 2>/dev/null || true";
}

}  // namespace kestrune
