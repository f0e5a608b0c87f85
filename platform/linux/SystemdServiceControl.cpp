#include "platform/linux/SystemdServiceControl.h"

namespace kestrune {

// Not waited for, no password asked, and given up on when the bus hangs: the lines below need their part of
// the time. Few backends have all of these units, and one that is not there is nothing to tell anybody.
std::string SystemdServiceControl::unloadLine(const std::string& label) const {
  return "timeout --foreground 1 systemctl --user --no-block --no-ask-password stop " + label +
         ".service 2>/dev/null || true";
}

// The first character in brackets: the pattern still matches the same command lines, but no longer its own
// text, which is part of the command line of the shell that runs it.
std::string SystemdServiceControl::endMatchingLine(const std::string& pattern) const {
  return "pkill -f '[" + pattern.substr(0, 1) + "]" + pattern.substr(1) + "' || true";
}

// Listeners only: whoever just looks at the port, such as a browser, is left alone.
std::string SystemdServiceControl::killListenersLine(int port) const {
  return "lsof -ti tcp:" + std::to_string(port) + " -sTCP:LISTEN | xargs -r kill -9 2>/dev/null || true";
}

}  // namespace kestrune
