#pragma once

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/rig/RealProgram.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

/// A session bus that knows how to start services. From its start on it is the user's bus.
class StartingBus {
 public:
  void add(const std::string& name, const std::string& command) const {
    std::ofstream(folder.file(name + ".service"))
        << "[D-BUS Service]\nName=" << name << "\nExec=" << command << "\n";
  }
  void start(const std::vector<std::string>& variables) {
    const std::string address = "unix:path=" + folder.file("bus");
    std::ofstream(folder.file("bus.conf"))
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n<busconfig><type>session</"
           "type><listen>"
        << address << "</listen><servicedir>" << folder.file("")
        << "</servicedir><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\" "
           "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
           "<allow own=\"*\"/></policy></busconfig>\n";
    program = std::make_unique<RealProgram>(
        std::vector<std::string>{"dbus-daemon", "--nofork", "--nosyslog", "--print-address=1",
                                 "--config-file=" + folder.file("bus.conf")},
        variables);
    program->firstLine();
    variable = std::make_unique<ScopedVariable>("DBUS_SESSION_BUS_ADDRESS", address);
  }

 private:
  const ScratchFolder folder;
  std::unique_ptr<RealProgram> program;
  std::unique_ptr<ScopedVariable> variable;
};

}  // namespace kestrune::testing
