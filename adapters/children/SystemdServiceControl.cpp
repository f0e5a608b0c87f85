#include "adapters/children/SystemdServiceControl.h"

namespace kestrune {

// Does not wait for the unit to stop, and asks for no password. When systemctl hangs, timeout ends it with
// status 124 after 1 s and sets `unload_limit`, a variable of the shell that runs all lines: each later unit
// gets 0.2 s, so that time remains for the other lines. Errors are not shown: few backends have all of these
// units.
std::string SystemdServiceControl::unloadLine(const std::string& label) const {
  return "timeout --foreground ${unload_limit:-1} systemctl --user --no-block --no-ask-password stop " +
         label + ".service 2>/dev/null || [ $? != 124 ] || unload_limit=0.2 || true";
}

// The brackets around the first character keep the pattern from matching the shell that runs this line. The
// path of the client may contain the pattern too. So the line skips $PPID, which is the client, and every
// process whose command line names KestruneMenuClient or KestruneMenuDialogs: open windows, an instance that
// waits to take over, a --status command of a panel, the terminal that runs the client. /proc/PID/cmdline
// separates arguments by NUL; hence grep -z.
std::string SystemdServiceControl::endMatchingLine(const std::string& pattern) const {
  return "for pid in $(pgrep -f '[" + pattern.substr(0, 1) + "]" + pattern.substr(1) +
         "'); do [ $pid = $PPID ] || "
         "grep -sqzE '(^|/)KestruneMenu(Client|Dialogs)( |$)' /proc/$pid/cmdline || "
         "kill $pid 2>/dev/null; done || true";
}

// Kills listeners only, not clients of the port, such as a browser. This client listens on no TCP port, and
// runs curl for its requests to the port.
std::string SystemdServiceControl::killListenersLine(int port) const {
  return "lsof -ti tcp:" + std::to_string(port) + " -sTCP:LISTEN | xargs -r kill -9 2>/dev/null || true";
}

}  // namespace kestrune
