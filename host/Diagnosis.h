#pragma once

#include <string>

#include "adapters/instance/Rendezvous.h"
#include "adapters/loop/EventLoop.h"
#include "ports/Process.h"

namespace kestrune {

/// Describes the running client: PID, face (tray or terminal), command line and, if it answers, its status.
std::string describeClient(EventLoop& loop, Rendezvous& rendezvous);

/// Describes this session for a bug report: lines of text, without secrets. Starts no D-Bus service. Waits at
/// most 2 s for each program that it runs, and 30 s in all. `windows` is the path of KestruneMenuDialogs.
std::string describeSession(Processes& processes, const std::string& windows);

}  // namespace kestrune
