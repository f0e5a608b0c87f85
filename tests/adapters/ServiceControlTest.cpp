#include <gtest/gtest.h>

#include "adapters/children/SystemdServiceControl.h"
#include "adapters/launchd/LaunchdServiceControl.h"

namespace kestrune::testing {
namespace {

TEST(SystemdServiceControl, StopsTheUnitOfTheUserWithoutWaitingForIt) {
  EXPECT_EQ(SystemdServiceControl().unloadLine("com.kestrune.mac-service"),
            "timeout --foreground ${unload_limit:-1} systemctl --user --no-block --no-ask-password stop "
            "com.kestrune.mac-service.service 2>/dev/null || [ $? != 124 ] || unload_limit=0.2 || true");
}

TEST(SystemdServiceControl, MatchesCommandLinesByAPatternThatDoesNotMatchItself) {
  EXPECT_EQ(SystemdServiceControl().endMatchingLine("kestrune-mac-service"),
            "for pid in $(pgrep -f '[k]estrune-mac-service'); do [ $pid = $PPID ] || "
            "grep -sqzE '(^|/)KestruneMenu(Client|Dialogs)( |$)' /proc/$pid/cmdline || "
            "kill $pid 2>/dev/null; done || true");
}

TEST(SystemdServiceControl, KillsListenersOnly) {
  EXPECT_EQ(SystemdServiceControl().killListenersLine(8765),
            "lsof -ti tcp:8765 -sTCP:LISTEN | xargs -r kill -9 2>/dev/null || true");
}

TEST(LaunchdServiceControl, WordsTheLinesOfTheStop) {
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
