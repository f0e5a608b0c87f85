#pragma once

#include <string>

#include "adapters/bus/SessionBus.h"
#include "adapters/instance/Rendezvous.h"
#include "adapters/loop/EventLoop.h"
#include "ports/MainBundle.h"
#include "ports/Process.h"

namespace kestrune {

/// Describes the running client: PID, face (tray or terminal), command line and, if it answers, its status.
std::string describeClient(EventLoop& loop, Rendezvous& rendezvous);

/// Describes this session for a bug report: lines of text, without secrets. Connects `sessionBus` and
/// `systemBus`, which must not be connected yet. Starts no D-Bus service; waits for answers from the buses
/// for 2 s at most. `windows` is the path of KestruneMenuDialogs. Main thread.
std::string describeSession(EventLoop& loop, SessionBus& sessionBus, SystemBus& systemBus,
                            const MainBundle& bundle, Processes& processes, const std::string& windows);

}  // namespace kestrune
