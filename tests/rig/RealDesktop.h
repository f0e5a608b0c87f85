#pragma once

#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/rig/BusText.h"
#include "tests/rig/Namespaces.h"
#include "tests/rig/RealProgram.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/StubService.h"

// Real parts of a machine, each in a process of its own, on the buses of a test.

namespace kestrune::testing {

/// A display without a screen, and folders where the programs on it may keep things.
class RealDisplay {
 public:
  std::string variable() const { return "DISPLAY=:" + number; }

  /// The environment of a program on this display that finds nothing of the machine's own desktop.
  std::vector<std::string> variables() const {
    return {variable(),
            "HOME=" + home.file(""),
            "XDG_CONFIG_HOME=" + home.file("config"),
            "XDG_CONFIG_DIRS=" + home.file("no-config"),
            "XDG_CACHE_HOME=" + home.file("cache"),
            "XDG_DATA_HOME=" + home.file("data"),
            "XDG_RUNTIME_DIR=" + home.file(""),
            "GSETTINGS_BACKEND=memory",
            "NO_AT_BRIDGE=1"};
  }

  const ScratchFolder home;

 private:
  // It stays as it is when a test ends the only program on it.
  RealProgram server{
      {"Xvfb", "-displayfd", "1", "-noreset", "-screen", "0", "800x600x24", "-nolisten", "tcp"}};
  const std::string number = server.firstLine();
};

/// systemd's logind on the system bus of a test, which sees and changes nothing of the machine's sessions.
/// Whether other users than root may hold locks it asks a policy that allows everything.
class RealLogin {
 public:
  /// The bus runs, and is the machine's for the time of the test.
  explicit RealLogin(const std::string& busAddress)
      : policy(
            busAddress, "org.freedesktop.PolicyKit1",
            [](sd_bus_message* call) { return sd_bus_reply_method_return(call, "(bba{ss})", 1, 0, 0) >= 0; }),
        program(arguments()) {
    if (sd_bus_open_system(&bus) < 0) throw std::runtime_error("no system bus");
  }
  ~RealLogin() { sd_bus_flush_close_unref(bus); }
  RealLogin(const RealLogin&) = delete;
  RealLogin& operator=(const RealLogin&) = delete;

  /// The locks that it lists: "what, who, why, mode"; or why it does not.
  std::vector<std::string> inhibitors() const {
    sd_bus_message* reply = nullptr;
    sd_bus_error error{};
    const int result =
        sd_bus_call_method(bus, "org.freedesktop.login1", "/org/freedesktop/login1",
                           "org.freedesktop.login1.Manager", "ListInhibitors", &error, &reply, "");
    const BusMessage owned(reply);
    if (result < 0) {
      const std::string why = std::string("error ") + error.name;
      sd_bus_error_free(&error);
      return {why};
    }
    std::vector<std::string> found;
    sd_bus_message_enter_container(reply, 'a', "(ssssuu)");
    const char *what, *who, *why, *mode;
    std::uint32_t uid, pid;
    while (sd_bus_message_read(reply, "(ssssuu)", &what, &who, &why, &mode, &uid, &pid) > 0) {
      found.push_back(std::string(what) + ", " + who + ", " + why + ", " + mode);
    }
    return found;
  }

 private:
  /// With folders of its own for what it keeps, and without the devices of the machine.
  static std::vector<std::string> arguments() {
    const std::string script =
        "mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/logind.conf.d &&"
        " printf '[Login]\\nNAutoVTs=0\\nReserveVT=0\\n' >/run/systemd/logind.conf.d/test.conf &&"
        " exec setpriv --pdeathsig KILL env SYSTEMD_LOG_TARGET=console /lib/systemd/systemd-logind";
    requireNamespaces("--mount");
    std::vector<std::string> words{"unshare", "--mount"};
    if (needsUserNamespace()) words.insert(words.end(), {"--user", "--map-root-user"});
    words.insert(words.end(), {"--", "sh", "-c", script});
    return words;
  }

  StubService policy;
  RealProgram program;
  sd_bus* bus = nullptr;
};

}  // namespace kestrune::testing
