#pragma once

#include <string>

#include "adapters/bus/SessionBus.h"
#include "adapters/instance/Rendezvous.h"
#include "adapters/loop/EventLoop.h"
#include "ports/MainBundle.h"
#include "ports/Process.h"

namespace kestrune {

/// The running client, as far as it answers: its PID, face, command line and state.
std::string describeClient(EventLoop& loop, Rendezvous& rendezvous);

/// Describes this session for a fault report, in lines to read, without secrets. Starts no service; waits for
/// answers at most 2 s. `windows` is the path of KestruneMenuDialogs. Call it before either bus is connected.
/// Main thread.
std::string describeSession(EventLoop& loop, SessionBus& sessionBus, SystemBus& systemBus,
                            const MainBundle& bundle, Processes& processes, const std::string& windows);

}  // namespace kestrune
