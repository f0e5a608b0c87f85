#pragma once

#include "ports/ServiceControl.h"

namespace kestrune {

/// Returns shell commands, one line each, that stop systemd user units or end processes. Does not run them.
class SystemdServiceControl final : public ServiceControl {
 public:
  // Because the service manager may hang, `timeout` ends systemctl after 1.2 s. A script may run this line
  // for several units, and the rest of the script needs time too. So when 2 s have passed since the first of
  // these lines began, the limit is 0.2 s. Errors are hidden: few backends have all these units.
  std::string unloadLine(const std::string& label) const override {
    return ": ${unload_from:=$SECONDS}; timeout --foreground $((SECONDS - unload_from < 2)).2 "
           "systemctl --user --no-block --no-ask-password stop " +
           label + ".service 2>/dev/null || true";
  }

  // The pattern may match the command line of a client (if the client's path contains the pattern), or of the
  // terminal in which a client runs. So the variable `spared` lists the processes that get no signal: this
  // client, all processes of KestruneMenuClient and KestruneMenuDialogs, and all their ancestors. If one
  // shell runs several of these lines, only the first one sets `spared`.
  std::string endMatchingLine(const std::string& pattern) const override {
    return "[ \"${spared-}\" ] || for pid in $PPID $(pgrep KestruneMenu); do "
           "while [ ${pid:-0} -gt 0 ]; do spared+=\" $pid \"; "
           "pid=$(sed -n 's/^PPid:\\t//p' /proc/$pid/status 2>/dev/null) || true; done; done; "
           "for pid in $(pgrep -f '[" +
           pattern.substr(0, 1) + "]" + pattern.substr(1) +
           "'); do [[ $spared == *\" $pid \"* ]] || kill $pid 2>/dev/null; done || true";
  }

  // A process that is connected to the port, such as a browser or this client, gets no signal.
  std::string killListenersLine(int port) const override {
    return "lsof -ti tcp:" + std::to_string(port) + " -sTCP:LISTEN | xargs -r kill -9 2>/dev/null || true";
  }
};

}  // namespace kestrune
