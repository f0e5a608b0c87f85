#include <gtest/gtest.h>

#include "adapters/children/SystemdServiceControl.h"
#include "adapters/launchd/Launchd.h"

namespace kestrune::testing {
namespace {

TEST(SystemdServiceControl, UnloadStopsTheUserUnitWithoutWaiting) {
  EXPECT_EQ(SystemdServiceControl().unloadLine("com.kestrune.mac-service"),
            ": ${unload_from:=$SECONDS}; timeout --foreground $((SECONDS - unload_from < 2)).2 "
            "systemctl --user --no-block --no-ask-password stop com.kestrune.mac-service.service 2>/dev/null "
            "|| true");
}

TEST(SystemdServiceControl, PatternDoesNotMatchItsOwnShell) {
  const std::string line = SystemdServiceControl().endMatchingLine("kestrune-mac-service");
  EXPECT_NE(line.find("pgrep -f '[k]estrune-mac-service'"), std::string::npos);
  EXPECT_EQ(line.find("kestrune-mac-service"), std::string::npos);
}

TEST(SystemdServiceControl, OnlyListenersAreKilled) {
  EXPECT_EQ(SystemdServiceControl().killListenersLine(8765),
            "lsof -ti tcp:8765 -sTCP:LISTEN | xargs -r kill -9 2>/dev/null || true");
}

TEST(LaunchdServiceControl, LinesUseLaunchctl) {
  EXPECT_EQ(LaunchdServiceControl(501).unloadLine("com.kestrune.mac-service"),
            "launchctl bootout gui/501/com.kestrune.mac-service || true");
  EXPECT_EQ(LaunchdServiceControl(0).unloadLine("com.halvask.mac-tunnel"),
            "launchctl bootout gui/0/com.halvask.mac-tunnel || true");
  EXPECT_EQ(LaunchdServiceControl(501).endMatchingLine("halvask-desktop-bridge"),
            "pkill -f 'halvask-desktop-bridge' || true");
  EXPECT_EQ(LaunchdServiceControl(501).killListenersLine(8766),
            "lsof -ti tcp:8766 | xargs kill -9 2>/dev/null || true");
}

}  // namespace
}  // namespace kestrune::testing
