#pragma once

#include <string>
#include <vector>

#include "tests/rig/ForkedProgram.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

/// An Xvfb display, and a home folder for the programs on this display.
class RealDisplay {
 public:
  /// Returns variables for a program's environment. They make the program use this display and home folder,
  /// and hide the settings of the machine's desktop from it.
  std::vector<std::string> variables() const {
    return {"DISPLAY=:" + number,
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
  // Without -noreset, the server would reset itself when its last client disconnects.
  RealProgram server{
      {"Xvfb", "-displayfd", "1", "-noreset", "-screen", "0", "800x600x24", "-nolisten", "tcp"}};
  const std::string number = server.firstLine();
};

}  // namespace kestrune::testing
