#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "adapters/system/FileDescriptor.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

/// A session bus of a test's own, which starts no services. While this lives it is the user's bus, whether it
/// runs or not.
class PrivateBus {
 public:
  PrivateBus() {
    std::ofstream(folder.file("bus.conf"))
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>"
        << address()
        << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>"
           "</policy></busconfig>\n";
  }

  ~PrivateBus() { stop(); }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  std::string address() const { return "unix:path=" + folder.file("bus"); }

  /// Returns when the bus takes connections.
  void start() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    const FileDescriptor announced(ends[0]);
    FileDescriptor announcing(ends[1]);
    const std::string configuration = "--config-file=" + folder.file("bus.conf");
    const std::string log = folder.file("bus.log");
    const pid_t parent = getpid();
    process = fork();
    if (process == 0) {
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      dup2(announcing.get(), STDOUT_FILENO);
      // It complains of a machine that limits its descriptors, which is no business of the test.
      dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
      execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nosyslog", "--print-address=1",
             configuration.c_str(), nullptr);
      _exit(127);
    }
    announcing.reset();
    pollfd announcement{announced.get(), POLLIN, 0};
    char byte = 0;
    if (process < 0 || poll(&announcement, 1, patienceInMilliseconds) != 1 ||
        read(announced.get(), &byte, 1) != 1) {
      stop();
      std::stringstream said;
      said << std::ifstream(log).rdbuf();
      throw std::runtime_error("the bus does not start: " + said.str());
    }
  }

  /// Ends the bus without a word to those who use it.
  void stop() {
    if (process <= 0) return;
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    process = -1;
  }

  /// From now on the bus takes everything and answers nothing.
  void freeze() const {
    kill(process, SIGSTOP);
    waitpid(process, nullptr, WUNTRACED);
  }
  void thaw() const { kill(process, SIGCONT); }

 private:
  const ScratchFolder folder;
  const ScopedVariable variable{"DBUS_SESSION_BUS_ADDRESS", address()};
  pid_t process = -1;
};

}  // namespace kestrune::testing
