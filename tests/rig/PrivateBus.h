#pragma once

#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "tests/rig/ForkedProgram.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

/// A session bus for one test. While this object exists, DBUS_SESSION_BUS_ADDRESS names this bus, even if it
/// is not running.
class PrivateBus {
 public:
  std::string address() const { return "unix:path=" + folder.file("bus"); }

  /// Makes a service that the bus starts at the first message to `name`. Takes effect at the next start().
  void add(const std::string& name, const std::string& command) const {
    std::ofstream(folder.file(name + ".service"))
        << "[D-BUS Service]\nName=" << name << "\nExec=" << command << "\n";
  }

  /// Starts the bus, and returns when it accepts connections. `variables` ("NAME=value") are added to the
  /// environment of the bus. The services that the bus starts inherit this environment.
  void start(std::vector<std::string> variables = {}) {
    const std::string configuration = folder.file("bus.conf");
    std::ofstream(configuration)
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>"
        << address() << "</listen><servicedir>" << folder.file("")
        << "</servicedir><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>"
           "</policy></busconfig>\n";
    const std::vector<std::string> command{"dbus-daemon", "--nofork", "--nosyslog", "--print-address=1",
                                           "--config-file=" + configuration};
    daemon.emplace(command, std::move(variables));
    daemon->firstLine();
  }

  /// Kills the bus daemon. Its clients get no D-Bus message; they only find their connections closed.
  void stop() { daemon.reset(); }

  /// Suspends the bus: until thaw(), clients can send messages, but the bus delivers none.
  void freeze() const {
    daemon->tell(SIGSTOP);
    waitpid(daemon->pid(), nullptr, WUNTRACED);
  }
  void thaw() const { daemon->tell(SIGCONT); }

 private:
  const ScratchFolder folder;
  const ScopedVariable variable{"DBUS_SESSION_BUS_ADDRESS", address()};
  std::optional<RealProgram> daemon;
};

}  // namespace kestrune::testing
