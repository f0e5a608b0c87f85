#pragma once

#include <string>

#include "adapters/bus/SessionBus.h"
#include "adapters/instance/Rendezvous.h"
#include "adapters/loop/EventLoop.h"
#include "ports/MainBundle.h"
#include "ports/Process.h"

namespace kestrune {

/// The client that runs, as far as it answers: its process, its face, its command line and its state.
std::string describeClient(EventLoop& loop, Rendezvous& rendezvous);

/// What a report of a fault needs to know of this session: lines for a person, without secrets. Looks and
/// asks, and starts no service; waits for 2 s at most for those who do not answer. `windows` is the program
/// that shows them. Neither bus is connected yet. Main thread.
std::string describeSession(EventLoop& loop, SessionBus& sessionBus, SystemBus& systemBus,
                            const MainBundle& bundle, Processes& processes, const std::string& windows);

}  // namespace kestrune
