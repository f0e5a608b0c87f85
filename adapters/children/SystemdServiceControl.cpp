#include "adapters/children/SystemdServiceControl.h"

namespace kestrune {

// The line does not wait for the unit to stop, and asks for no password. Because the service manager may
// hang, `timeout` ends systemctl after 1.2 s. If the script ran its first line of this kind 2 s ago or
// earlier, `timeout` ends systemctl after 0.2 s, so that the rest of the script has time to run. Errors are
// not shown, because few backends have all these units.
std::string SystemdServiceControl::unloadLine(const std::string& label) const {
  return ": ${unload_from:=$SECONDS}; timeout --foreground $((SECONDS - unload_from < 2)).2 "
         "systemctl --user --no-block --no-ask-password stop " +
         label + ".service 2>/dev/null || true";
}

// The brackets around the first character keep the pattern from matching the shell that runs this line. But
// the pattern may match a client by its path, or the terminal in which a client runs. So `spared` lists the
// processes that get no signal: this client, all processes of KestruneMenuClient and KestruneMenuDialogs, and
// all their ancestors. If one shell runs several of these lines, only the first one sets `spared`.
std::string SystemdServiceControl::endMatchingLine(const std::string& pattern) const {
  return "[ \"$spared\" ] || for pid in $PPID $(pgrep KestruneMenu); do "
         "while [ ${pid:-0} -gt 1 ]; do spared+=\" $pid \"; "
         "pid=$(sed -n 's/^PPid:\\t//p' /proc/$pid/status 2>/dev/null); done; done; "
         "for pid in $(pgrep -f '[" +
         pattern.substr(0, 1) + "]" + pattern.substr(1) +
         "'); do [[ $spared == *\" $pid \"* ]] || kill $pid 2>/dev/null; done || true";
}

// The command spares the clients of the port, such as a browser, and this process, which listens on no port.
std::string SystemdServiceControl::killListenersLine(int port) const {
  return "lsof -ti tcp:" + std::to_string(port) + " -sTCP:LISTEN | xargs -r kill -9 2>/dev/null || true";
}

}  // namespace kestrune
